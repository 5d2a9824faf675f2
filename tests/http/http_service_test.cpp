// The HTTP service over real loopback connections, with short limits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/exceptions.h"
#include "platform/http.h"
#include "platform/server_socket.h"
#include "tests/support/http_client.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::Http::HttpLimits;
using Pelinor::Http::Request;
using Pelinor::Http::Response;
using Pelinor::Http::ResponseCode;
using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;
using TessardTest::RawHttpConnection;

// Answers by target: "/read" reads the body on another thread in 512-byte pieces, then
// answers 200; "/answer/N" answers N at once; "/hold" keeps the exchange for the test;
// "/throw" throws; "/keep-206" sets 206 and releases; anything else is released unanswered.
class TestHandler final : public Pelinor::Http::RequestHandlerMixin {
  public:
    struct Held {
        Ref<Request> request;
        Ref<Response> response;
    };
    struct Seen {
        std::string contentType;
        bool hasLength = false;
        int64_t length = -1;
    };

    explicit TestHandler(Ref<Logger> logger) : RequestHandlerMixin(std::move(logger)) {}

    void HandlePost(const Ref<Request>& request, const Ref<Response>& response) override {
        std::string url = request->GetUrl();
        {
            std::lock_guard lock(mutex);
            request->GetContentType(seen.contentType);
            seen.hasLength = request->GetContentLength(seen.length);
        }
        if (url == "/read") {
            std::lock_guard lock(mutex);
            workers.emplace_back([this, request, response] { ReadAndAnswer(request, response); });
        } else if (url.rfind("/answer/", 0) == 0) {
            response->Answer(ResponseCode{std::stoi(url.substr(8)), "Test"});
        } else if (url == "/hold") {
            std::lock_guard lock(mutex);
            held.push_back({request, response});
            changed.notify_all();
        } else if (url == "/throw") {
            throw std::runtime_error("boom");
        } else if (url == "/keep-206") {
            response->SetResponseCode(ResponseCode::PartialContent);
        }
    }

    template <typename Predicate>
    bool WaitUntil(Predicate done) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 5s, [&] { return done(); });
    }
    Seen LastSeen() {
        std::lock_guard lock(mutex);
        return seen;
    }
    void JoinWorkers() {
        std::vector<std::thread> all;
        {
            std::lock_guard lock(mutex);
            all.swap(workers);
        }
        for (auto& worker : all) worker.join();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> bodies;
    std::vector<std::string> failures;
    std::vector<Held> held;

  private:
    void ReadAndAnswer(Ref<Request> request, Ref<Response> response) {
        std::string body;
        try {
            char piece[512];
            for (int64_t n; (n = request->Read(piece, sizeof piece)) >= 0;) {
                body.append(piece, static_cast<size_t>(n));
            }
            {
                std::lock_guard lock(mutex);
                bodies.push_back(body);
            }
            response->SetHeader("X-Body-Length", std::to_string(body.size()));
            response->Answer(ResponseCode::Ok);
        } catch (const Pelinor::IOException& e) {
            std::lock_guard lock(mutex);
            failures.push_back(e.what());
        }
        changed.notify_all();
    }

    std::vector<std::thread> workers;
    Seen seen;
};

std::string Head(const std::string& method, const std::string& target,
                 const std::string& fields = "") {
    return method + " " + target + " HTTP/1.1\r\nHost: t\r\n" + fields + "\r\n";
}

std::string Post(const std::string& target, const std::string& body,
                 const std::string& fields = "") {
    return Head("POST", target,
                fields + "Content-Length: " + std::to_string(body.size()) + "\r\n") +
           body;
}

HttpLimits ShortLimits() {
    HttpLimits limits;
    limits.maxHeaderBytes = 1024;
    limits.headerTimeout = 300ms;
    limits.bodyTimeout = 300ms;
    limits.idleTimeout = 400ms;
    limits.maxConnections = 4;
    limits.stopGrace = 3s;
    return limits;
}

class HttpServiceTest : public ::testing::Test {
  protected:
    void Start(const HttpLimits& limits) {
        auto socket = Pelinor::System::MakePosixServerSocket();
        socket->Listen("127.0.0.1", 0);
        port = socket->GetPort();
        service = Pelinor::Http::CreateHttpSvc(
            socket, logger, Pelinor::Http::GetDefaultResponseHeadersDefinitions(), limits);
        service->SetRequestHandler(handler);
        service->Start();
    }

    void TearDown() override {
        if (service) service->Stop();
        handler->JoinWorkers();
    }

    TessardTest::LogCapture logs;
    Ref<Logger> logger = Logger::CreateLogger(Logger::sDefaultLogger, "http");
    Ref<TestHandler> handler = MakeRef<TestHandler>(logger);
    Ref<Pelinor::Http::HttpService> service;
    uint16_t port = 0;
};

TEST_F(HttpServiceTest, ServesManyRequestsOnOneConnection) {
    Start(ShortLimits());
    RawHttpConnection client(port);

    ASSERT_TRUE(
        client.Send(Post("/read", "hello", "Content-Type: application/json; charset=x\r\n")));
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->headers["x-body-length"], "5");
    EXPECT_EQ(reply->headers["server"], "tessard");
    EXPECT_EQ(reply->headers["cache-control"], "no-store");
    EXPECT_EQ(reply->headers["content-length"], "0");
    EXPECT_EQ(reply->headers.count("connection"), 0u);
    EXPECT_EQ(handler->LastSeen().contentType, "application/json; charset=x");
    EXPECT_TRUE(handler->LastSeen().hasLength);
    EXPECT_EQ(handler->LastSeen().length, 5);

    for (std::string method : {"GET", "PUT", "PATCH"}) {
        ASSERT_TRUE(client.Send(Head(method, "/read")));
        reply = client.ReadReply();
        ASSERT_TRUE(reply) << method;
        EXPECT_EQ(reply->status, 405) << method;
        EXPECT_EQ(reply->headers["allow"], "POST") << method;
    }

    // A chunked body arrives decoded and declares no length.
    ASSERT_TRUE(client.Send(Head("POST", "/read", "Transfer-Encoding: chunked\r\n") +
                            "3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n"));
    reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->headers["x-body-length"], "7");
    EXPECT_FALSE(handler->LastSeen().hasLength);

    // A body many chunks long, then two pipelined requests in one write.
    std::string large(300 * 1024 + 17, 'x');
    for (size_t i = 0; i < large.size(); i += 4093) large[i] = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(client.Send(Post("/read", large) + Post("/read", "12") + Post("/answer/204", "")));
    for (std::string expected : {std::to_string(large.size()), std::string("2")}) {
        reply = client.ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->headers["x-body-length"], expected);
    }
    reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 204);
    ASSERT_TRUE(handler->WaitUntil([&] { return handler->bodies.size() == 4; }));
    EXPECT_EQ(handler->bodies[0], "hello");
    EXPECT_EQ(handler->bodies[1], "abcdefg");
    EXPECT_EQ(handler->bodies[2], large);

    // Idle past the time-out: the service hangs up.
    EXPECT_TRUE(client.WaitClosed(5s));
}

TEST_F(HttpServiceTest, RefusesBadHeadsAndClosesSlowOnes) {
    Start(ShortLimits());

    RawHttpConnection oversized(port);
    oversized.Send(Head("POST", "/read", "X-Big: " + std::string(2000, 'b') + "\r\n"));
    auto reply = oversized.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 431);
    EXPECT_EQ(reply->headers["connection"], "close");
    EXPECT_TRUE(oversized.WaitClosed(5s));

    RawHttpConnection malformed(port);
    malformed.Send("POST /read HTTP/1.1\r\nContent-Length: nine\r\n\r\n");
    reply = malformed.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 400);
    EXPECT_TRUE(malformed.WaitClosed(5s));

    RawHttpConnection slow(port);
    slow.Send("POST /read HTTP/1.1\r\nHost: t\r\n");
    EXPECT_TRUE(slow.WaitClosed(5s));
    EXPECT_TRUE(handler->bodies.empty());
}

TEST_F(HttpServiceTest, StalledBodyReleasesTheReader) {
    Start(ShortLimits());
    RawHttpConnection client(port);
    client.Send(Head("POST", "/read", "Content-Length: 1000\r\n") + "only a little");
    ASSERT_TRUE(handler->WaitUntil([&] { return !handler->failures.empty(); }));
    EXPECT_EQ(handler->failures[0], "Timed out waiting for the request body");
    EXPECT_TRUE(client.WaitClosed(5s));
}

TEST_F(HttpServiceTest, InterimContinueOnlyWhenTheBodyIsWanted) {
    Start(ShortLimits());
    const std::string expect = "Expect: 100-continue\r\nContent-Length: 4\r\n";

    RawHttpConnection refused(port);
    refused.Send(Head("POST", "/answer/413", expect));
    auto reply = refused.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 413);
    // The body was never read, so the connection cannot carry another request.
    EXPECT_EQ(reply->headers["connection"], "close");
    EXPECT_TRUE(refused.WaitClosed(5s));

    RawHttpConnection accepted(port);
    accepted.Send(Head("POST", "/read", expect));
    reply = accepted.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 100);
    accepted.Send("body");
    reply = accepted.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->headers["x-body-length"], "4");

    // An answer sent without reading a plain body also closes the connection.
    accepted.Send(Post("/answer/200", "unread"));
    reply = accepted.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->headers["connection"], "close");
    EXPECT_TRUE(accepted.WaitClosed(5s));
}

TEST_F(HttpServiceTest, UnansweredAndFailedRequestsStillGetAnAnswer) {
    Start(ShortLimits());
    RawHttpConnection client(port);
    client.Send(Post("/keep-206", "") + Post("/drop", ""));
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 206);
    reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 500);

    client.Send(Post("/throw", ""));
    reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 500);
    EXPECT_TRUE(client.WaitClosed(5s));
    EXPECT_TRUE(logs.Has(LogLevel::Error, "Handling POST /throw failed: boom"));

    service->SetRequestHandler(nullptr);
    reply = TessardTest::PostOnce(port, "/answer/200", "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 500);
}

TEST_F(HttpServiceTest, ExtraConnectionsWaitForAFreeSlot) {
    HttpLimits limits = ShortLimits();
    limits.maxConnections = 2;
    limits.idleTimeout = 10s;
    limits.headerTimeout = 10s;
    Start(limits);
    std::vector<std::unique_ptr<RawHttpConnection>> open;
    for (int i = 0; i < 2; ++i) {
        open.push_back(std::make_unique<RawHttpConnection>(port));
        open.back()->Send(Post("/answer/200", ""));
        ASSERT_TRUE(open.back()->ReadReply());
    }
    RawHttpConnection extra(port);  // completes in the kernel's backlog
    extra.Send(Post("/answer/201", ""));
    EXPECT_FALSE(extra.ReadReply(500ms));
    open[0]->Close();
    auto reply = extra.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 201);
}

TEST_F(HttpServiceTest, StopFinishesRequestsInFlightThenReleasesEverything) {
    HttpLimits limits = ShortLimits();
    limits.bodyTimeout = 30s;
    limits.stopGrace = 1s;
    Start(limits);
    RawHttpConnection inFlight(port), late(port), stalled(port);
    inFlight.Send(Post("/hold", ""));
    ASSERT_TRUE(handler->WaitUntil([&] { return handler->held.size() == 1; }));
    late.Send(Post("/hold", ""));
    ASSERT_TRUE(handler->WaitUntil([&] { return handler->held.size() == 2; }));
    stalled.Send(Head("POST", "/read", "Content-Length: 100\r\n") + "part");

    std::thread stopper([&] { service->Stop(); });
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
    handler->held[0].response->Answer(ResponseCode::Ok);
    auto reply = inFlight.ReadReply();
    stopper.join();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->headers["connection"], "close");

    // The reader blocked on the stalled body was let go; what is left fails cleanly.
    ASSERT_TRUE(handler->WaitUntil([&] { return !handler->failures.empty(); }));
    EXPECT_EQ(handler->failures[0], "The HTTP service is stopping");
    EXPECT_TRUE(late.WaitClosed(5s));
    EXPECT_THROW(handler->held[1].response->Answer(ResponseCode::Ok), Pelinor::IOException);
    char byte;
    EXPECT_EQ(handler->held[1].request->Read(&byte, 1), -1);
    service->Stop();
    handler->held.clear();
}

TEST(HttpServiceSocket, ListensOnEveryAddressAndReportsConflicts) {
    auto socket = Pelinor::System::MakePosixServerSocket();
    socket->Listen("localhost", 0);
    uint16_t port = socket->GetPort();
    EXPECT_NE(port, 0);
    auto other = Pelinor::System::MakePosixServerSocket();
    try {
        other->Listen("127.0.0.1", port);
        ADD_FAILURE() << "a second listener on the same port";
    } catch (const Pelinor::IOException& e) {
        EXPECT_EQ(std::string(e.what()), "Cannot listen on 127.0.0.1:" + std::to_string(port) +
                                             ": Address already in use");
    }
    auto fds = socket->TakeDescriptors();
    EXPECT_FALSE(fds.empty());
    EXPECT_TRUE(socket->TakeDescriptors().empty());
    socket = nullptr;  // no longer the owner: the descriptors stay open
    for (int fd : fds) EXPECT_EQ(::close(fd), 0);
}

}  // namespace
