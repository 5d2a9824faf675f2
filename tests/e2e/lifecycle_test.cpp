// Start-up, configuration and stopping of the daemon binary.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

// Seconds between a log time stamp, read as UTC, and now.
long SecondsFromNow(const std::string& stamp) {
    std::tm tm{};
    if (strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &tm) == nullptr) return 1L << 30;
    return static_cast<long>(timegm(&tm) - std::time(nullptr));
}

TEST(Lifecycle, LogsInUtcServesAndStopsOnSignals) {
    // A zone far from UTC shows whether stamps are local time.
    DaemonOptions options;
    options.env = {"TZ=XYZ-5:45"};
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    auto entries = daemon.LogEntries();
    ASSERT_FALSE(entries.empty()) << daemon.Logs();
    for (const auto& e : entries) {
        EXPECT_NE("error", e.level) << e.message;
        EXPECT_NE("warning", e.level) << e.message;
        EXPECT_LT(std::labs(SecondsFromNow(e.time)), 600) << "not UTC: " << e.time;
    }
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/report/up", "{}"));
    EXPECT_EQ(0, daemon.Terminate(SIGTERM)) << daemon.Logs();

    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/report/up", "{}"));
    EXPECT_EQ(0, daemon.Terminate(SIGINT)) << daemon.Logs();
    EXPECT_EQ("up-1.json", ReadLink(daemon.ReportDir() + "/up.json"));
}

TEST(Lifecycle, OptionsThatPrintAndBadOnesExit) {
    const std::string usage =
        "Usage: tessard [-r REPORT_DIR] | --help | --version | --check-config | status [--json]\n";
    struct Row {
        std::vector<std::string> args;
        int exitCode;
        std::string output;  // the whole output, or its start
        std::vector<std::string> env = {};
    } rows[] = {
        {{"-x"}, 1, TESSARD_BINARY + std::string(": invalid option -- 'x'\n") + usage},
        {{"--bogus"}, 1, TESSARD_BINARY + std::string(": unrecognized option '--bogus'\n") + usage},
        {{"--version"}, 0, "tessard 1.0.0 (build 1)\n"},
        {{"--help"}, 0, usage + "\ntessard: host health daemon."},
        {{"status", "--yaml"}, 1, "Usage: tessard status [--json]\n"},
        {{"-r", "/tmp"},
         1,
         "Initializing Pelinor failed: TESSARD_TIME_SCALE",
         {"TESSARD_TIME_SCALE=0"}},
    };
    DaemonOptions options;
    options.waitReady = false;
    for (const Row& row : rows) {
        options.args = row.args;
        options.env = row.env;
        DaemonProcess command(options);
        EXPECT_EQ(row.exitCode, command.WaitExit(std::chrono::seconds(20))) << row.args[0];
        EXPECT_EQ(0u, command.Logs().find(row.output)) << command.Logs();
    }

    options.args = {};
    options.env = {};
    options.configXml = "<config><httpPort>1</config";
    DaemonProcess badConfig(options);
    EXPECT_EQ(1, badConfig.WaitExit(std::chrono::seconds(20)));
    EXPECT_EQ(0u, badConfig.Logs().find("Initializing Pelinor failed: ")) << badConfig.Logs();
}

TEST(Lifecycle, PortInUseExitsAndLeavesFirstDaemonServing) {
    DaemonProcess first;
    ASSERT_TRUE(first.Ready()) << first.Logs();
    DaemonOptions options;
    options.port = first.Port();
    options.waitReady = false;
    DaemonProcess second(options);
    EXPECT_EQ(1, second.WaitExit(std::chrono::seconds(20)));
    auto entries = second.LogEntries();
    EXPECT_TRUE(std::any_of(entries.begin(), entries.end(), [](const LogEntry& e) {
        return e.level == "error" && e.logger == kMainLogger &&
               e.message.starts_with("Exiting due to exception: ") &&
               e.message.size() > sizeof("Exiting due to exception: ");
    })) << second.Logs();
    EXPECT_EQ(std::string::npos, second.Logs().find("listening")) << second.Logs();
    EXPECT_EQ(200, PostStatus(first.Port(), "/report/still", "{}"));
    EXPECT_EQ(0, first.Terminate());
}

}  // namespace
}  // namespace TessardTest
