// The example plugins of the package, run as the daemon runs them, against a real daemon.
#include <rapidjson/document.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <regex>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

// Runs a plugin with the daemon's arguments and an empty environment: exit code and output.
std::pair<int, std::string> RunPlugin(const std::string& name, uint16_t port,
                                      const std::string& options = "") {
    return RunCommand("env -i " TESSARD_EXAMPLE_PLUGINS "/bin/" + name +
                      ".sh ++group=tessard-plugins,mem=40 -u http://localhost:" +
                      std::to_string(port) + " " + options);
}

TEST(ExamplePlugins, EachStoresAValidReport) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/", odd = "/nowhere/a\"b\\c\nd\te";
    struct Case {
        std::string name;
        std::string option;
        std::string status;  // a pattern: the host's state decides the healthy reports
        std::vector<const char*> keys;
        std::string reportDir = "";  // as the report names it, when not empty
    };
    const std::string healthy = "ok|warning|critical";
    const Case cases[] = {
        {"disk", "", healthy, {"mounts", "thresholds"}},
        {"memory", "", healthy, {"total_kib", "used_percent", "swap_used_percent"}},
        {"load", "", healthy, {"load1", "cpus", "pressure"}},
        // Its parent is this test, not the daemon, so only the option names the directory.
        {"reportdir", "", "unknown", {"reason"}},
        {"reportdir", "'--report-dir=" + odd + "'", "critical", {"problems"}, odd},
        {"reportdir",
         "--report-dir=" + daemon.ReportDir(),
         healthy,
         {"newest_report_age_s", "writable", "report_names", "dangling_links"},
         daemon.ReportDir()},
    };
    rapidjson::Document doc;
    auto text = [&](const char* key) -> std::string {
        return doc.HasMember(key) && doc[key].IsString() ? doc[key].GetString() : "";
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " " + c.option);
        auto [code, log] = RunPlugin(c.name, daemon.Port(), "--loglevel=debug " + c.option);
        ASSERT_EQ(0, code) << log;
        std::string body = ReadFile(dir + c.name + ".json");
        // Stored exactly as logged at debug level.
        EXPECT_NE(log.find(c.name + ": debug: report: " + body + "\n"), std::string::npos) << log;
        ASSERT_TRUE(!doc.Parse(body.c_str()).HasParseError() && doc.IsObject()) << body;
        EXPECT_EQ(c.name, text("plugin"));
        EXPECT_TRUE(
            std::regex_match(text("timestamp"), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
        EXPECT_TRUE(std::regex_match(text("status"), std::regex(c.status))) << body;
        for (const char* key : c.keys) {
            ASSERT_TRUE(doc.HasMember(key)) << key;
        }
        EXPECT_TRUE(c.reportDir.empty() || c.reportDir == text("report_dir")) << body;
    }
    // disk, memory, load and reportdir
    EXPECT_TRUE(doc["writable"].IsTrue() && doc["report_names"].GetInt() == 4 &&
                doc["dangling_links"].GetInt() == 0);

    // A bound socket that does not listen refuses the POST: one line says so.
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket refuser(io, {boost::asio::ip::address_v4::loopback(), 0});
    auto [code, log] = RunPlugin("memory", refuser.local_endpoint().port());
    EXPECT_NE(0, code);
    EXPECT_EQ(1, std::ranges::count(log, '\n')) << log;
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
