// HTTP behaviour around the handler: methods, head size, expectations, aborted and slow clients.
#include <netdb.h>

#include <cstdio>
#include <filesystem>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

using namespace std::chrono_literals;

// Posts a file with curl; the status code it reports ("000" when it could not connect).
std::string Curl(const std::string& file, const std::string& url) {
    std::string command =
        "curl -s -g -o /dev/null -w '%{http_code}' -H "
        "'Content-Type: application/json' --data-binary @" +
        file + " '" + url + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {};
    char code[8] = {};
    size_t n = fread(code, 1, sizeof code - 1, pipe);
    pclose(pipe);
    return std::string(code, n);
}

// The daemon listens where "localhost" resolves; some hosts list only 127.0.0.1.
bool LocalhostHasIpv6() {
    addrinfo hints{};
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo("localhost", nullptr, &hints, &found) != 0) return false;
    freeaddrinfo(found);
    return true;
}

TEST(Protocol, MethodsHeadSizeAndExpectations) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const uint16_t port = daemon.Port();
    const std::string dir = daemon.ReportDir() + "/";
    for (const std::string request :
         {"GET /r/m HTTP/1.1\r\nHost: l\r\n\r\n", "DELETE /r/m HTTP/1.1\r\nHost: l\r\n\r\n",
          "PUT /r/m HTTP/1.1\r\nHost: l\r\nContent-Type: application/json\r\n"
          "Content-Length: 2\r\n\r\n{}"}) {
        auto reply = Exchange(port, request);
        EXPECT_EQ(405, Status(reply)) << request;
        EXPECT_EQ("POST", reply ? reply->headers["allow"] : "") << request;
    }

    auto padded = [](size_t size) {
        std::string request = PostRequest("/r/head", "{}");
        return request.insert(request.find("\r\n") + 2,
                              "X-Pad: " + std::string(size, 'p') + "\r\n");
    };
    EXPECT_EQ(431, Status(Exchange(port, padded(17 * 1024))));
    EXPECT_EQ(200, Status(Exchange(port, padded(15 * 1024))));

    // A small report waits for "100 Continue"; then the same connection carries on.
    RawHttpConnection connection(port);
    ASSERT_TRUE(
        connection.Send("POST /r/expect HTTP/1.1\r\nHost: l\r\nContent-Type: application/json\r\n"
                        "Content-Length: 7\r\nExpect: 100-continue\r\n\r\n"));
    EXPECT_EQ(100, Status(connection.ReadReply(5s)));
    ASSERT_TRUE(connection.Send(R"({"e":1})"));
    EXPECT_EQ(200, Status(connection.ReadReply()));
    EXPECT_EQ(R"({"e":1})", ReadFile(dir + "expect-0.json"));
    ASSERT_TRUE(connection.Send(PostRequest("/r/expect", R"({"e":2})")));
    EXPECT_EQ(200, Status(connection.ReadReply()));
    EXPECT_EQ("expect-1.json", ReadLink(dir + "expect.json"));

    if (std::filesystem::exists("/usr/bin/curl")) {
        const std::string file = daemon.WorkDir() + "/curl.json";
        WriteFile(file, R"({"curl":true})");
        const std::string path = ":" + std::to_string(port) + "/report/curl";
        EXPECT_EQ("200", Curl(file, "http://127.0.0.1" + path));
        EXPECT_EQ(R"({"curl":true})", ReadFile(dir + "curl-0.json"));
        if (LocalhostHasIpv6()) {
            EXPECT_EQ("200", Curl(file, "http://[::1]" + path));
            EXPECT_EQ("curl-1.json", ReadLink(dir + "curl.json"));
        }
    }
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Protocol, ClientGoneMidBodyLeavesNoVisibleReport) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    for (size_t sent : {size_t{0}, size_t{1000}, size_t{512 * 1024}}) {
        RawHttpConnection connection(daemon.Port());
        std::string request = PostRequest("/r/gone", std::string(1024 * 1024, 'g'));
        ASSERT_TRUE(connection.Send(request.substr(0, request.size() - 1024 * 1024 + sent)));
        connection.Close();
    }
    // Time for the daemon to notice the closes; nothing signals it to a client.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/other", "{}"));
    for (const auto& name : ListDir(daemon.ReportDir()))
        EXPECT_TRUE(name.starts_with(".") || name.starts_with("other")) << name;
    // The name is not stuck.
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/r/gone", R"({"g":1})"));
    EXPECT_EQ(R"({"g":1})", ReadFile(daemon.ReportDir() + "/gone.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Protocol, IncompleteHeadIsDroppedAfterTenSeconds) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    RawHttpConnection slow(daemon.Port());
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(slow.Send("POST /r/slow HTTP/1.1\r\nHost: l\r\n"));
    // The stalled client does not hold up others.
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/quick", "{}"));
    EXPECT_TRUE(slow.WaitClosed(20s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9s);
    EXPECT_FALSE(std::filesystem::exists(daemon.ReportDir() + "/slow.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
