// What operators use on the running daemon: reload on SIGHUP, the status file, the metrics
// textfile and `tessard status`; and --check-config on good and broken trees.
#include <rapidjson/document.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <thread>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

using namespace std::chrono_literals;

constexpr const char* kDescriptions = "/usr/lib/tolmar/tessard/plugins/config/";
constexpr const char* kStatusFile = "/run/tessard/status.json";

std::string Describe(const std::string& name, const std::string& frequency) {
    return R"({"path": ")" + name + R"(.sh", "frequency": ")" + frequency + R"("})";
}

// Plugin name -> category, from the status file; empty while it is missing or unparsable.
std::map<std::string, std::string> Scheduled(const std::string& statusPath) {
    std::map<std::string, std::string> plugins;
    rapidjson::Document status;
    status.Parse(ReadFile(statusPath).c_str());
    if (status.HasParseError() || !status.IsObject()) return plugins;
    for (const auto& p : status["plugins"].GetArray())
        plugins[p["name"].GetString()] = p["category"].GetString();
    return plugins;
}

TEST(OperatorE2E, CheckConfigShowsEveryProblemWithItsLineAndTheSchedule) {
    struct Row {
        const char* name;
        std::string config;
        std::string description;  // of "broken.json", none when empty
        int exitCode;
        std::vector<std::string> lines;
    } rows[] = {
        {"clean",
         "<config>\n<httpPort>9996</httpPort>\n<pluginOverrides><b><frequency>Fast</frequency>"
         "</b></pluginOverrides>\n</config>\n",
         "",
         0,
         {"  a                       slow      300s      60s        40 MiB\n",
          "  b                       fast      300s      30s        40 MiB\n", "No problems.\n"}},
        {"broken",
         "<config>\n<httpPort>99x</httpPort>\n<pluginOverides><a><enabled>no</enabled></a>"
         "</pluginOverides>\n<pluginOverrides><rpSizeMb>900</rpSizeMb>\n<a><enabled>maybe</enabled>"
         "</a><dsk><loglevel>info</loglevel></dsk></pluginOverrides>\n</config>\n",
         "{\"path\": ",
         1,
         {"config.xml:2: httpPort: '99x' is not an integer: the default 9996 is used\n",
          "config.xml:3: pluginOverides/a/enabled: unknown key, ignored\n",
          "config.xml:4: pluginOverrides/rpSizeMb: '900' is outside 41 to 500: ignored\n",
          "config.xml:5: pluginOverrides/a/enabled: 'maybe' is not a boolean: ignored\n",
          "config.xml:5: pluginOverrides/dsk/loglevel: no plugin description names dsk\n",
          "broken.json\n", "  a                       slow", "Problems found.\n"}},
        {"malformed", "<config><httpPort>1</config", "", 1, {"Malformed configuration "}},
    };
    for (const Row& row : rows) {
        DaemonOptions options;
        options.args = {"--check-config"};
        options.waitReady = false;
        options.configXml = row.config;
        options.prepare = [&](const std::string& root) {
            WriteFile(root + kDescriptions + "a.json", Describe("a", "slow"));
            WriteFile(root + kDescriptions + "b.json", Describe("b", "slow"));
            if (!row.description.empty())
                WriteFile(root + kDescriptions + "broken.json", row.description);
        };
        DaemonProcess check(options);
        EXPECT_EQ(check.WaitExit(20s), row.exitCode) << row.name << "\n" << check.Logs();
        for (const std::string& line : row.lines)
            EXPECT_NE(check.Logs().find(line), std::string::npos)
                << row.name << ": " << line << "\n"
                << check.Logs();
    }
}

TEST(OperatorE2E, HupReloadsWithoutTouchingReportsAndStatusShowsItAll) {
    TempDir metrics;
    DaemonOptions options;
    options.port = FreePort();
    const std::string config = "<config><httpPort>" + std::to_string(options.port) +
                               "</httpPort><metrics><textfileDir>" + metrics.Path() +
                               "</textfileDir></metrics>";
    options.configXml = config + "<pluginOverrides><colour>red</colour></pluginOverrides></config>";
    // No pool: plugins are scheduled but not launched, and never in the host's pool.
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=/nonexistent"};
    options.prepare = [](const std::string& root) {
        WriteFile(root + kDescriptions + "a.json", Describe("a", "fast"));
        WriteFile(root + kDescriptions + "b.json", Describe("b", "slow"));
    };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    EXPECT_TRUE(daemon.HasLine("warning", kMainLogger,
                               "Unknown configuration key pluginOverrides/colour (" +
                                   daemon.ConfigPath() + ":1) is ignored"));
    const std::string statusPath = daemon.Root() + kStatusFile;
    using Plan = std::map<std::string, std::string>;
    ASSERT_TRUE(Eventually([&] {
        return Scheduled(statusPath) == Plan{{"a", "fast"}, {"b", "slow"}};
    })) << ReadFile(statusPath);

    // A changed description and a new override take effect.
    WriteFile(daemon.Root() + kDescriptions + "b.json", Describe("b", "fast"));
    WriteFile(
        daemon.ConfigPath(),
        config + "<pluginOverrides><a><enabled>false</enabled></a></pluginOverrides></config>");
    daemon.Signal(SIGHUP);
    EXPECT_TRUE(Eventually([&] {
        return Scheduled(statusPath) == Plan{{"b", "fast"}};
    })) << ReadFile(statusPath)
        << daemon.Logs();
    EXPECT_TRUE(daemon.HasLine("info", kMainLogger, "Reloaded " + daemon.ConfigPath()));

    // A configuration that does not load changes nothing.
    WriteFile(daemon.ConfigPath(), "<config><httpPort>");
    daemon.Signal(SIGHUP);
    EXPECT_TRUE(daemon.WaitForLog("Reload failed, nothing changed: Malformed configuration", 5s));
    WriteFile(daemon.ConfigPath(), config + "</config>");

    // Reloads under report load lose no report; the ignored signals change nothing.
    constexpr int kReports = 100;
    std::thread poster([&] {
        for (int i = 0; i < kReports; ++i)
            EXPECT_EQ(PostStatus(daemon.Port(), "/load", "{\"i\":" + std::to_string(i) + "}"), 200);
    });
    for (int signal : {SIGUSR1, SIGUSR2, SIGPIPE}) daemon.Signal(signal);
    for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(20ms)) daemon.Signal(SIGHUP);
    poster.join();
    EXPECT_TRUE(daemon.Running());
    EXPECT_EQ(ReadFile(daemon.ReportDir() + "/load.json"), "{\"i\":99}");
    EXPECT_TRUE(Eventually([&] {
        return Scheduled(statusPath) == Plan{{"a", "fast"}, {"b", "fast"}};
    }));

    // The status file, the textfile and the status command all show the reports.
    const std::string total = "tessard_reports_total{name=\"load\",code=\"200\"} 100\n";
    const std::string textfile = metrics / "tessard.prom";
    ASSERT_TRUE(Eventually([&] { return ReadFile(textfile).find(total) != std::string::npos; }))
        << ReadFile(textfile);
    if (RunCommand("command -v promtool").first == 0) {
        auto [code, output] = RunCommand("promtool check metrics < " + textfile);
        EXPECT_EQ(code, 0) << output;
    }
    const std::regex sample(R"([a-z_]+(\{([a-z]+="([^"\\]|\\.)*",?)+\})? -?[0-9.e+]+)");
    std::istringstream lines(ReadFile(textfile));
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.starts_with("# ") || std::regex_match(line, sample)) << line;

    const std::string statusCommand =
        "TESSARD_ROOT=" + daemon.Root() + " " + daemon.Binary() + " status";
    auto [code, table] = RunCommand(statusCommand);
    EXPECT_EQ(code, 0) << table;
    EXPECT_NE(table.find("\nload "), std::string::npos) << table;
    EXPECT_NE(table.find("\nb "), std::string::npos) << table;
    EXPECT_EQ(daemon.Terminate(), 0);
    EXPECT_NE(RunCommand(statusCommand).second.find("\nSTOPPED at "), std::string::npos);
}

}  // namespace
}  // namespace TessardTest
