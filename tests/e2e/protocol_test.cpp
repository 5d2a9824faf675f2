// HTTP behaviour around the handler: methods, head size, expectations, aborted and slow clients.
#include <filesystem>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

using namespace std::chrono_literals;

TEST(Protocol, RefusalsExpectationsAndBrokenClients) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const uint16_t port = daemon.Port();
    const std::string dir = daemon.ReportDir() + "/";
    // Stalls mid-head throughout: everything below also shows it holds up nobody.
    RawHttpConnection slow(port);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(slow.Send("POST /r/slow HTTP/1.1\r\nHost: l\r\n"));

    for (size_t sent : {size_t{0}, size_t{1000}, size_t{512 * 1024}}) {
        RawHttpConnection connection(port);
        std::string request = PostRequest("/r/gone", std::string(1024 * 1024, 'g'));
        ASSERT_TRUE(connection.Send(request.substr(0, request.size() - 1024 * 1024 + sent)));
        connection.Close();
    }
    // Time for the daemon to notice the closes; nothing signals it to a client.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(200, PostStatus(port, "/r/other", "{}"));
    for (const auto& name : ListDir(daemon.ReportDir()))
        EXPECT_TRUE(name.starts_with(".") || name.starts_with("other")) << name;
    // The name is not stuck.
    ASSERT_EQ(200, PostStatus(port, "/r/gone", R"({"g":1})"));
    EXPECT_EQ(R"({"g":1})", ReadFile(dir + "gone.json"));

    for (const std::string request :
         {"GET /r/m HTTP/1.1\r\nHost: l\r\n\r\n", "DELETE /r/m HTTP/1.1\r\nHost: l\r\n\r\n",
          "PUT /r/m HTTP/1.1\r\nHost: l\r\nContent-Type: application/json\r\n"
          "Content-Length: 2\r\n\r\n{}"}) {
        auto reply = Exchange(port, request);
        EXPECT_EQ(405, Status(reply)) << request;
        EXPECT_EQ("POST", reply ? reply->headers["allow"] : "") << request;
        EXPECT_EQ("no-store", reply ? reply->headers["cache-control"] : "") << request;
    }

    auto padded = [](size_t size) {
        std::string request = PostRequest("/r/head", "{}");
        return request.insert(request.find("\r\n") + 2,
                              "X-Pad: " + std::string(size, 'p') + "\r\n");
    };
    EXPECT_EQ(431, Status(Exchange(port, padded(17 * 1024))));
    EXPECT_EQ(200, Status(Exchange(port, padded(15 * 1024))));
    EXPECT_EQ(400, Status(Exchange(port, "POST /r/m HTTP/1.1\r\nContent-Length: x\r\n\r\n")));
    // No declared length, with or without a chunked body, is refused before any body is read.
    const std::string noLength = "POST /r/n HTTP/1.1\r\nContent-Type: application/json\r\n";
    EXPECT_EQ(411, Status(Exchange(port, noLength + "\r\n")));
    EXPECT_EQ(411,
              Status(Exchange(port, noLength + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n")));
    const std::string full(1048576, 'f');
    EXPECT_EQ(200, PostStatus(port, "/r/full", full));
    EXPECT_TRUE(ReadFile(dir + "full-0.json") == full);

    // Only the head is sent, so the first reply shows whether the body was asked for.
    const std::string expect =
        "POST /r/expect HTTP/1.1\r\nHost: l\r\nContent-Type: application/json\r\n"
        "Expect: 100-continue\r\nContent-Length: ";
    EXPECT_EQ(413, Status(Exchange(port, expect + "1048577\r\n\r\n")));
    RawHttpConnection connection(port);
    ASSERT_TRUE(connection.Send(expect + "7\r\n\r\n"));
    EXPECT_EQ(100, Status(connection.ReadReply(5s)));
    ASSERT_TRUE(connection.Send(R"({"e":1})"));
    EXPECT_EQ(200, Status(connection.ReadReply()));
    EXPECT_EQ(R"({"e":1})", ReadFile(dir + "expect-0.json"));
    // The same connection carries on.
    ASSERT_TRUE(connection.Send(PostRequest("/r/expect", R"({"e":2})")));
    EXPECT_EQ(200, Status(connection.ReadReply()));
    EXPECT_EQ("expect-1.json", ReadLink(dir + "expect.json"));

    EXPECT_TRUE(slow.WaitClosed(20s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);
    EXPECT_FALSE(std::filesystem::exists(dir + "slow.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
