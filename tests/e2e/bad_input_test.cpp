// Requests the daemon must refuse, sizes at the limit, and report names.
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

constexpr size_t kLimit = 1048576;

std::string Head(const std::string& target, const std::vector<std::string>& fields) {
    std::string head = "POST " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    for (const auto& field : fields) head += field + "\r\n";
    return head + "\r\n";
}

bool AnyMessageStartsWith(const DaemonProcess& daemon, const std::string& prefix) {
    for (const auto& e : daemon.LogEntries())
        if (e.message.starts_with(prefix)) return true;
    return false;
}

TEST(BadInput, RefusesByContentTypeUrlAndLengthInThatOrder) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const uint16_t port = daemon.Port();
    for (const std::string type : {"text/plain", "application/json; charset=utf-8",
                                   "Application/JSON", "application/jsonl", "application/x-json"}) {
        EXPECT_EQ(400, PostStatus(port, "/r/typed", "{}", type)) << type;
        EXPECT_TRUE(
            daemon.HasLine("error", kHandlerLogger, "Unsupported content type received " + type));
    }
    EXPECT_EQ(400, Status(Exchange(port, Head("/r/typed", {"Content-Length: 2"}) + "{}")));
    EXPECT_TRUE(daemon.HasLine("error", kHandlerLogger, "Unsupported content type received "));

    // The content type is judged before the URL, the URL before the length.
    EXPECT_EQ(400, PostStatus(port, "/", "{}", "text/html"));
    EXPECT_TRUE(
        daemon.HasLine("error", kHandlerLogger, "Unsupported content type received text/html"));
    EXPECT_FALSE(AnyMessageStartsWith(daemon, "URL does not contain"));
    EXPECT_EQ(400, PostStatus(port, "/", "{}"));
    EXPECT_TRUE(daemon.HasLine("error", kHandlerLogger, "URL does not contain report name"));
    const std::string chunked = "2\r\n{}\r\n0\r\n\r\n";
    EXPECT_EQ(400, Status(Exchange(port, Head("/", {"Content-Type: application/json",
                                                    "Transfer-Encoding: chunked"}) +
                                             chunked)));
    EXPECT_FALSE(AnyMessageStartsWith(daemon, "Report length header required"));

    EXPECT_EQ(411, Status(Exchange(port, Head("/r/chunked", {"Content-Type: application/json",
                                                             "Transfer-Encoding: chunked"}) +
                                             chunked)));
    EXPECT_TRUE(daemon.HasLine("error", kHandlerLogger, "Report length header required"));
    EXPECT_EQ(411, Status(Exchange(port, Head("/r/nolength", {"Content-Type: application/json"}))));
    EXPECT_EQ(2, daemon.CountLines("error", kHandlerLogger, "Report length header required"));

    // Only the head is sent: a reply proves the body is not awaited.
    for (const std::string length : {"1048577", "100000000"}) {
        auto reply = Exchange(
            port, Head("/r/big", {"Content-Type: application/json", "Content-Length: " + length}));
        EXPECT_EQ(413, Status(reply)) << length;
        EXPECT_TRUE(daemon.HasLine("error", kHandlerLogger, "Report too large: " + length));
    }
    // The first reply to an oversized expectation is the refusal, not "100 Continue".
    auto refused =
        Exchange(port, Head("/r/big", {"Content-Type: application/json", "Content-Length: 1048577",
                                       "Expect: 100-continue"}));
    EXPECT_EQ(413, Status(refused));
    EXPECT_EQ(2, daemon.CountLines("error", kHandlerLogger, "Report too large: 1048577"));

    EXPECT_FALSE(AnyMessageStartsWith(daemon, "Report Name:"));
    EXPECT_EQ(std::set<std::string>{}, ListDir(daemon.ReportDir()));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(BadInput, StoresEmptyAndLimitSizedReportsWhole) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    std::string full = R"({"pad":")";
    full += std::string(kLimit - full.size() - 2, 'x') + R"("})";
    ASSERT_EQ(kLimit, full.size());
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/full", full));
    EXPECT_TRUE(ReadFile(dir + "full-0.json") == full);
    EXPECT_EQ("full-0.json", ReadLink(dir + "full.json"));
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/empty", ""));
    EXPECT_EQ("", ReadFile(dir + "empty-0.json"));
    EXPECT_EQ("empty-0.json", ReadLink(dir + "empty.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(BadInput, ReportNamesStayInsideTheReportDirectory) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    // A leading "." is refused too: ".col-0.json" is the temporary file of "col".
    for (const std::string name :
         {"a+b", "%2e%2e", "a%20b", "", "x?y=1", "a%2fb", ".", "..", ".col"}) {
        EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/" + name, "{}")) << name;
        EXPECT_TRUE(daemon.HasLine("info", kHandlerLogger, "Report Path: " + dir + name));
        EXPECT_TRUE(
            daemon.HasLine("error", kHandlerLogger,
                           "Error opening directory " + dir + ": '" + name +
                               "' contains unexpected regex meta characters                   "
                               "(expected regex '[a-zA-Z0-9_.-]+')"));
    }
    EXPECT_EQ(std::set<std::string>{}, ListDir(daemon.ReportDir()));

    // Whatever precedes the last "/" is ignored.
    for (const std::string target : {"/r/a.b", "/../../escape", "/a/b/ok_N-9"})
        EXPECT_EQ(200, PostStatus(daemon.Port(), target, R"({"t":")" + target + R"("})")) << target;
    EXPECT_EQ(R"({"t":"/../../escape"})", ReadFile(dir + "escape-0.json"));
    EXPECT_EQ((std::set<std::string>{"a.b-0.json", "a.b.json", "escape-0.json", "escape.json",
                                     "ok_N-9-0.json", "ok_N-9.json"}),
              ListDir(daemon.ReportDir()));
    EXPECT_EQ(std::set<std::string>{"reports"}, ListDir(daemon.WorkDir()));
    const std::string base = std::filesystem::path(daemon.WorkDir()).parent_path().string();
    EXPECT_EQ((std::set<std::string>{"daemon-1.log", "root", "work"}), ListDir(base));
    EXPECT_EQ((std::set<std::string>{"etc", "run", "usr"}), ListDir(daemon.Root()));
    EXPECT_EQ(std::set<std::string>{"status.json"}, ListDir(daemon.Root() + "/run/tessard"));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(BadInput, WhatIsPlantedAtATemporaryNameIsReplacedNotWrittenThrough) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    TempDir outside;
    WriteFile(outside / "victim", "precious");
    std::filesystem::create_symlink(outside / "victim", dir + ".col-0.json");
    std::filesystem::create_hard_link(outside / "victim", dir + ".col-1.json");
    ASSERT_EQ(0, ::mkfifo((dir + ".col-2.json").c_str(), 0644));
    for (int i = 0; i < 3; ++i) {
        const std::string body = R"({"n":)" + std::to_string(i) + "}";
        EXPECT_EQ(200, PostStatus(daemon.Port(), "/col", body)) << i;
        EXPECT_EQ(body, ReadFile(dir + "col-" + std::to_string(i) + ".json"));
    }
    EXPECT_EQ("precious", ReadFile(outside / "victim"));
    EXPECT_EQ((std::set<std::string>{"col-0.json", "col-1.json", "col-2.json", "col.json"}),
              ListDir(daemon.ReportDir()));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
