// The example plugins of the package, run as the daemon runs them, against a real daemon.
#include <fcntl.h>
#include <netinet/in.h>
#include <rapidjson/document.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

// Runs a plugin with an empty environment and its output in `log`; its exit status.
int RunPlugin(const std::string& name, uint16_t port, const std::string& log,
              std::vector<std::string> extra) {
    std::vector<std::string> args = {std::string(TESSARD_EXAMPLE_PLUGINS) + "/bin/" + name + ".sh",
                                     "++group=tessard-plugins,mem=40", "-u",
                                     "http://localhost:" + std::to_string(port)};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    char* env[] = {nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 2, 1);
    pid_t pid = -1;
    int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), env);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (error != 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string String(const rapidjson::Value& object, const char* key) {
    auto it = object.FindMember(key);
    return it != object.MemberEnd() && it->value.IsString() ? it->value.GetString() : "";
}

int Int(const rapidjson::Value& object, const char* key) {
    auto it = object.FindMember(key);
    return it != object.MemberEnd() && it->value.IsInt() ? it->value.GetInt() : -1;
}

TEST(ExamplePlugins, EachStoresAValidReport) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    TempDir temp;
    const std::string log = temp / "plugin.log", dir = daemon.ReportDir() + "/";
    const std::string debug = "--loglevel=debug", odd = "/nowhere/a\"b\\c\nd\te";
    struct Case {
        std::string name;
        std::vector<std::string> extra;
        std::string status;  // a pattern: the host's state decides the healthy reports
        std::vector<const char*> keys;
    };
    const std::string healthy = "ok|warning|critical";
    const Case cases[] = {
        {"disk", {debug}, healthy, {"mounts", "thresholds"}},
        {"memory", {debug}, healthy, {"total_kib", "used_percent", "swap_used_percent"}},
        {"load", {debug}, healthy, {"load1", "cpus", "pressure"}},
        // Its parent is this test, not the daemon, so only the option names the directory.
        {"reportdir", {debug}, "unknown", {"reason"}},
        {"reportdir", {debug, "--report-dir=" + odd}, "critical", {"problems"}},
        {"reportdir",
         {debug, "--report-dir=" + daemon.ReportDir()},
         healthy,
         {"newest_report_age_s"}},
    };
    std::map<std::string, int> runs;
    rapidjson::Document doc;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " " + c.extra.back());
        ASSERT_EQ(0, RunPlugin(c.name, daemon.Port(), log, c.extra)) << ReadFile(log);
        EXPECT_EQ(c.name + "-" + std::to_string(runs[c.name]++) + ".json",
                  ReadLink(dir + c.name + ".json"));
        std::string body = ReadFile(dir + c.name + ".json");
        // Stored exactly as logged at debug level.
        EXPECT_NE(ReadFile(log).find(c.name + ": debug: report: " + body + "\n"), std::string::npos)
            << ReadFile(log);
        ASSERT_FALSE(doc.Parse(body.c_str()).HasParseError()) << body;
        ASSERT_TRUE(doc.IsObject()) << body;
        EXPECT_EQ(c.name, String(doc, "plugin"));
        EXPECT_TRUE(std::regex_match(String(doc, "timestamp"),
                                     std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
        EXPECT_TRUE(std::regex_match(String(doc, "status"), std::regex(c.status))) << body;
        for (const char* key : c.keys) EXPECT_TRUE(doc.HasMember(key)) << key;
        if (c.status == "critical") {
            EXPECT_EQ(odd, String(doc, "report_dir"));
        }
    }
    EXPECT_EQ(daemon.ReportDir(), String(doc, "report_dir"));
    EXPECT_TRUE(doc.HasMember("writable") && doc["writable"].IsTrue());
    EXPECT_EQ(4, Int(doc, "report_names"));  // disk, memory, load, reportdir
    EXPECT_EQ(0, Int(doc, "dangling_links"));

    // A bound socket that does not listen refuses the POST: one line says so.
    int refuser = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::bind(refuser, reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, ::getsockname(refuser, reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_NE(0, RunPlugin("memory", ntohs(address.sin_port), log, {}));
    EXPECT_EQ(1, std::ranges::count(ReadFile(log), '\n')) << ReadFile(log);
    ::close(refuser);
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
