// The HTTP service over loopback with a scripted handler: what the daemon's handler never
// does (fail, forget to answer, hold an exchange across Stop) and limits it cannot reach.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "platform/base/exceptions.h"
#include "platform/http/http.h"
#include "platform/http/server_socket.h"
#include "platform/threads/thread_pool.h"
#include "tests/support/http_client.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using namespace Pelinor;
using namespace Pelinor::Http;
using namespace TessardTest;

// Reads the body to its end, as a report job does, and answers 200; hands over why reading
// failed, or "" when it did not.
Task<void> ReadToEnd(Ref<Request> request, Ref<Response> response,
                     std::shared_ptr<std::promise<std::string>> failure) {
    char piece[512];
    std::string why;
    try {
        for (;;) {
            int64_t n = co_await request->Read(piece, sizeof piece);
            if (n < 0) break;
        }
        response->Answer(ResponseCode::Ok);
    } catch (const IOException& e) {
        why = e.what();
    }
    failure->set_value(why);
}

// By target: "/answer/N" answers N; "/throw" sets 206 and throws; "/keep-206" sets 206 and
// releases; "/hold" hands the exchange to the test; "/read" reads the body in a queued job;
// anything else is released unanswered.
class TestHandler final : public RequestHandlerMixin {
  public:
    using Exchange = std::pair<Ref<Request>, Ref<Response>>;
    explicit TestHandler(Ref<Service::Logger> logger) : RequestHandlerMixin(std::move(logger)) {
        System::GetThreadPool().CreateWorkQueue({"test", 16}, queue);
    }

    void HandlePost(const Ref<Request>& request, const Ref<Response>& response) override {
        std::string url = request->GetUrl();
        if (url.starts_with("/answer/")) {
            response->Answer(ResponseCode{std::stoi(url.substr(8)), "Test"});
        } else if (url == "/throw") {
            response->SetResponseCode(ResponseCode{206, "Partial Content"});
            throw std::runtime_error("boom");
        } else if (url == "/keep-206") {
            response->SetResponseCode(ResponseCode{206, "Partial Content"});
        } else if (url == "/hold") {
            std::lock_guard lock(mutex);
            held.emplace_back(request, response);
            changed.notify_all();
        } else if (url == "/read") {
            auto failure = std::make_shared<std::promise<std::string>>();
            {
                std::lock_guard lock(mutex);
                reads.push_back(failure->get_future());
            }
            queue->Enqueue([=] { return ReadToEnd(request, response, failure); });
        }
    }

    // Why the oldest "/read" not yet taken failed to read its body ("" when it did not).
    std::future<std::string> TakeRead() {
        std::lock_guard lock(mutex);
        auto read = std::move(reads.front());
        reads.pop_front();
        return read;
    }

    // The oldest held exchange not yet taken; none when nothing arrives in time.
    std::optional<Exchange> Take(std::chrono::milliseconds wait = 5s) {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, wait, [&] { return !held.empty(); })) return std::nullopt;
        Exchange exchange = held.front();
        held.pop_front();
        return exchange;
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Exchange> held;
    std::deque<std::future<std::string>> reads;
    Ref<System::WorkQueue> queue;
};

std::string Post(const std::string& target, const std::string& body,
                 const std::string& length = "") {
    return "POST " + target + " HTTP/1.1\r\nHost: t\r\nContent-Length: " +
           (length.empty() ? std::to_string(body.size()) : length) + "\r\n\r\n" + body;
}

// Status and Connection header of the next reply: "200 close", "500 ", or "none".
std::string Next(RawHttpConnection& connection) {
    auto reply = connection.ReadReply();
    return reply ? std::to_string(reply->status) + " " + reply->headers["connection"] : "none";
}

class HttpServiceTest : public ::testing::Test {
  protected:
    void Start(const HttpLimits& limits) {
        auto socket = System::MakePosixServerSocket();
        socket->Listen("127.0.0.1", 0);
        port = socket->GetPort();
        service = CreateHttpSvc(socket, logger, GetDefaultResponseHeadersDefinitions(), limits);
        service->SetRequestHandler(handler);
        service->Start();
    }

    LogCapture logs;
    Ref<Service::Logger> logger =
        Service::Logger::CreateLogger(Service::Logger::sDefaultLogger, "http");
    Ref<TestHandler> handler = MakeRef<TestHandler>(logger);
    Ref<HttpService> service;
    uint16_t port = 0;
};

TEST_F(HttpServiceTest, EveryRequestIsAnsweredAndNoClientHoldsAReader) {
    HttpLimits limits;
    limits.headerTimeout = limits.bodyTimeout = 300ms;
    limits.idleTimeout = 400ms;
    Start(limits);
    // Released with or without a code, in one pipelined write: both answered in order,
    // and the connection stays open until it idles out.
    RawHttpConnection released(port);
    released.Send(Post("/keep-206", "") + Post("/drop", ""));
    EXPECT_EQ(Next(released), "206 ");
    EXPECT_EQ(Next(released), "500 ");
    EXPECT_TRUE(released.WaitClosed(5s));

    // Unread body bytes would be parsed as the next request.
    RawHttpConnection unread(port);
    unread.Send(Post("/answer/200", "unread"));
    EXPECT_EQ(Next(unread), "200 close");

    RawHttpConnection failing(port);
    failing.Send(Post("/throw", ""));
    EXPECT_EQ(Next(failing), "500 close");
    EXPECT_TRUE(logs.Has(Service::LogLevel::Error, "Handling POST /throw failed: boom"));

    service->SetRequestHandler(nullptr);
    EXPECT_EQ(PostOnce(port, "/answer/200", "").value_or(HttpReply{}).status, 500);

    service->SetRequestHandler(handler);
    RawHttpConnection stalled(port);
    stalled.Send(Post("/read", "only a little", "1000"));
    EXPECT_TRUE(stalled.WaitClosed(5s));
    service->Stop();  // lets the reader go should the time-out not have
    EXPECT_EQ(handler->TakeRead().get(), "Timed out waiting for the request body");
}

TEST_F(HttpServiceTest, ExtraConnectionsWaitAndStopFinishesRequestsInFlight) {
    HttpLimits limits;
    limits.maxConnections = 2;
    limits.stopGrace = 1s;
    Start(limits);
    RawHttpConnection idle(port), stalled(port);
    idle.Send(Post("/answer/200", ""));
    ASSERT_EQ(Next(idle), "200 ");
    stalled.Send(Post("/read", "part", "100"));

    RawHttpConnection inFlight(port);  // completes in the kernel's backlog
    inFlight.Send(Post("/hold", ""));
    EXPECT_FALSE(handler->Take(500ms));
    idle.Close();
    auto answered = handler->Take().value();

    std::jthread stopper([&] { service->Stop(); });
    // Accepting ends first: wait until connecting is refused.
    bool refused = false;
    for (int i = 0; i < 100 && !refused; ++i) {
        try {
            RawHttpConnection probe(port);
            std::this_thread::sleep_for(20ms);
        } catch (const std::runtime_error&) {
            refused = true;
        }
    }
    EXPECT_TRUE(refused);
    answered.second->Answer(ResponseCode::Ok);
    EXPECT_EQ(Next(inFlight), "200 close");
    stopper.join();

    // Past the grace the waiting reader is let go and the exchange it was in is over.
    EXPECT_EQ(handler->TakeRead().get(), "The HTTP service is stopping");
    EXPECT_TRUE(stalled.WaitClosed(5s));
}

TEST(HttpServiceSocket, ListensOnEveryAddressAndReportsConflicts) {
    auto socket = System::MakePosixServerSocket();
    socket->Listen("localhost", 0);
    uint16_t port = socket->GetPort();
    std::string error;
    try {
        System::MakePosixServerSocket()->Listen("127.0.0.1", port);
    } catch (const IOException& e) {
        error = e.what();
    }
    EXPECT_EQ(error,
              "Cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use");
    auto fds = socket->TakeDescriptors();
    EXPECT_FALSE(fds.empty());
    EXPECT_TRUE(socket->TakeDescriptors().empty());
    socket = nullptr;  // no longer the owner: the descriptors stay open
    for (auto& fd : fds) EXPECT_EQ(::close(fd.Release()), 0);
}

}  // namespace
