// The HTTP service over loopback with a scripted handler: what the daemon's handler never
// does (fail, forget to answer, hold an exchange across Stop) and limits it cannot reach.
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

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
using TessardTest::PostRequest;
using TessardTest::RawHttpConnection;
using Exchange = std::pair<Ref<Request>, Ref<Response>>;

// By target: "/answer" answers 200; "/keep" sets 206 and releases; "/throw" sets 206 and
// throws; "/hold" hands the exchange to the test; "/read" reads the body in a queued job and
// hands over why that failed ("" when it did not); anything else is released unanswered.
struct TestHandler final : RequestHandlerMixin {
    TestHandler() : RequestHandlerMixin(Service::Logger::sDefaultLogger) {
        System::GetThreadPool().CreateWorkQueue({"test", 16}, queue);
    }

    void HandlePost(const Ref<Request>& request, const Ref<Response>& response) override {
        std::string url = request->GetUrl();
        if (url == "/answer") response->Answer(ResponseCode::Ok);
        if (url == "/keep" || url == "/throw") response->SetResponseCode({206, "Partial"});
        if (url == "/throw") throw std::runtime_error("boom");
        if (url == "/hold") held.set_value({request, response});
        if (url == "/read") queue->Enqueue([=, this] { return ReadToEnd(request, response); });
    }

    std::promise<Exchange> held;
    std::promise<std::string> readFailure;

    Task<void> ReadToEnd(Ref<Request> request, Ref<Response> response) {
        char piece[512];
        std::string why;
        try {
            while (co_await request->Read(piece, sizeof piece) >= 0) continue;
            response->Answer(ResponseCode::Ok);
        } catch (const IOException& e) {
            why = e.what();
        }
        readFailure.set_value(why);
    }

    Ref<System::WorkQueue> queue;
};

// Status and Connection header of the next reply: "200 close", "500 ", or "none".
std::string Next(RawHttpConnection& connection) {
    auto reply = connection.ReadReply();
    return reply ? std::to_string(reply->status) + " " + reply->headers["connection"] : "none";
}

struct HttpServiceTest : ::testing::Test {
    void Start(const HttpLimits& limits) {
        auto socket = System::MakePosixServerSocket();
        socket->Listen("127.0.0.1", 0);
        port = socket->GetPort();
        service = CreateHttpSvc(socket, Service::Logger::sDefaultLogger,
                                GetDefaultResponseHeadersDefinitions(), limits);
        service->SetRequestHandler(handler);
        service->Start();
    }

    TessardTest::LogCapture logs;
    Ref<TestHandler> handler = MakeRef<TestHandler>();
    Ref<HttpService> service;
    uint16_t port = 0;
};

TEST_F(HttpServiceTest, EveryRequestIsAnsweredAndNoClientHoldsAReader) {
    Start({.headerTimeout = 300ms, .bodyTimeout = 300ms, .idleTimeout = 400ms});
    // Released with or without a code, in one pipelined write: both answered in order,
    // and the connection stays open until it idles out.
    RawHttpConnection released(port);
    released.Send(PostRequest("/keep") + PostRequest("/drop"));
    EXPECT_EQ(Next(released), "206 ");
    EXPECT_EQ(Next(released), "500 ");
    EXPECT_TRUE(released.WaitClosed(5s));

    // Unread body bytes would be parsed as the next request.
    RawHttpConnection unread(port), failing(port);
    unread.Send(PostRequest("/answer", "unread"));
    EXPECT_EQ(Next(unread), "200 close");
    failing.Send(PostRequest("/throw"));
    EXPECT_EQ(Next(failing), "500 close");
    EXPECT_TRUE(logs.Has(Service::LogLevel::Error, "Handling POST /throw failed: boom"));

    service->SetRequestHandler(nullptr);
    EXPECT_EQ(TessardTest::PostStatus(port, "/answer", ""), 500);

    service->SetRequestHandler(handler);
    RawHttpConnection stalled(port);
    stalled.Send(PostRequest("/read", "only a little", 1000));
    EXPECT_TRUE(stalled.WaitClosed(5s));
    service->Stop();  // lets the reader go should the time-out not have
    EXPECT_EQ(handler->readFailure.get_future().get(), "Timed out waiting for the request body");
}

TEST_F(HttpServiceTest, ExtraConnectionsWaitAndStopFinishesRequestsInFlight) {
    Start({.maxConnections = 2, .stopGrace = 1s});
    RawHttpConnection idle(port), stalled(port);
    idle.Send(PostRequest("/answer"));
    ASSERT_EQ(Next(idle), "200 ");
    stalled.Send(PostRequest("/read", "part", 100));

    RawHttpConnection inFlight(port);  // completes in the kernel's backlog
    inFlight.Send(PostRequest("/hold"));
    auto held = handler->held.get_future();
    EXPECT_EQ(held.wait_for(500ms), std::future_status::timeout);
    idle.Close();
    ASSERT_EQ(held.wait_for(5s), std::future_status::ready);
    auto answered = held.get();

    std::jthread stopper([&] { service->Stop(); });
    // Accepting ends first: wait until connecting is refused.
    bool refused = false;
    for (int i = 0; i < 100 && !refused; ++i, std::this_thread::sleep_for(20ms)) {
        try {
            RawHttpConnection probe(port);
        } catch (const std::runtime_error&) {
            refused = true;
        }
    }
    EXPECT_TRUE(refused);
    answered.second->Answer(ResponseCode::Ok);
    EXPECT_EQ(Next(inFlight), "200 close");
    stopper.join();

    // Past the grace the waiting reader is let go and the exchange it was in is over.
    EXPECT_EQ(handler->readFailure.get_future().get(), "The HTTP service is stopping");
    EXPECT_TRUE(stalled.WaitClosed(5s));
}

}  // namespace
