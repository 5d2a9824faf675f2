#include "daemon/status_board.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

namespace {

using namespace std::chrono_literals;
using Tessard::PluginEnd;
using Tessard::PluginRunOutcome;

TEST(StatusBoard, OutcomesBecomeStatusAndMetrics) {
    const Tessard::Clock::time_point t0{1'800'000'000s};
    Tessard::StatusBoard board({"1.2.3", 7, 42, t0});
    board.OnScheduled({{"gone", "slow", 300s, 60s, 40}, {"oom", "fast", 300s, 30s, 40}});
    board.OnScheduled({{"oom", "fast", 300s, 30s, 40}, {"sig", "slow", 300s, 60s, 40}});
    board.OnStarted("oom", t0);
    // How each run ends, and the exit status operators and alerts see for it.
    struct Row {
        PluginRunOutcome outcome;
        int exitCode;
    } rows[] = {
        {{"oom", "fast", 300s, t0, 2500ms, PluginEnd::OutOfMemory, 9, 40960, 40}, 137},
        {{"sig", "slow", 300s, t0, 10ms, PluginEnd::Signalled, 6, 0, 40}, 134},
        {{"sig", "slow", 300s, t0, 10ms, PluginEnd::StoppedAtNextBatch, 15, 0, 40}, 143},
        {{"new", "fast", 300s, t0, 0ms, PluginEnd::LaunchFailed, 2, 0, 40}, -1},
        {{"new", "fast", 300s, t0, 5ms, PluginEnd::Exited, 3, 0, 40}, 3},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Tessard::ExitCode(row.outcome), row.exitCode) << EndName(row.outcome.end);
        board.OnOutcome(row.outcome);
    }
    board.OnReport({"disk", 200, 310, 0, t0 + 1s});
    board.OnReport({"disk", 500, 0, 65534, t0 + 2s});
    board.OnReport({"a-b", 400, 0, {}, t0});
    board.OnReport({"a\"b", 500, 0, {}, t0});
    EXPECT_TRUE(board.TakeChanged());
    EXPECT_FALSE(board.TakeChanged());

    rapidjson::Document status;
    status.Parse(board.Json(t0 + 3s).c_str());
    ASSERT_FALSE(status.HasParseError());
    EXPECT_STREQ(status["daemon"]["updated"].GetString(), "2027-01-15T08:00:03Z");
    const auto& disk = status["reports"][1];
    EXPECT_STREQ(disk["name"].GetString(), "disk");
    EXPECT_STREQ(disk["last"].GetString(), "2027-01-15T08:00:01Z")
        << "the newest stored, not the 500";
    EXPECT_EQ(disk["size"].GetInt(), 310);
    EXPECT_STREQ(disk["writer"].GetString(), "root") << "the newest stored report's writer";
    EXPECT_EQ(disk["answers"]["500"].GetInt(), 1);
    ASSERT_EQ(status["plugins"].Size(), 3u) << "gone is no longer scheduled";
    EXPECT_STREQ(status["plugins"][1]["lastOutcome"]["end"].GetString(), "oom_killed");

    std::string metrics = board.Prometheus(t0 + 3s);
    for (const char* line : {"tessard_report_last_seconds{name=\"disk\"} 1800000001\n",
                             "tessard_reports_total{name=\"a-b\",code=\"400\"} 1\n",
                             "tessard_plugin_last_exit{plugin=\"sig\"} 143\n",
                             "tessard_plugin_oom_kills_total{plugin=\"oom\"} 1\n",
                             "tessard_plugin_oom_kills_total{plugin=\"sig\"} 0\n",
                             "tessard_plugin_duration_seconds{plugin=\"oom\"} 2.5\n",
                             "tessard_plugin_peak_memory_bytes{plugin=\"oom\"} 41943040\n",
                             "tessard_plugin_runs_total{plugin=\"new\",end=\"launch_failed\"} 1\n"})
        EXPECT_NE(metrics.find(line), std::string::npos) << line << metrics;

    // Refused names and names beyond the limit are counted, not tracked: clients cannot grow
    // the file unbounded.
    for (size_t i = 0; i < Tessard::kMaxTrackedReportNames; ++i)
        board.OnReport({"n" + std::to_string(i), 200, 1, {}, t0});
    status.Parse(board.Json(t0).c_str());
    EXPECT_EQ(status["reports"].Size(), Tessard::kMaxTrackedReportNames);
    EXPECT_EQ(status["untrackedReports"].GetInt(), 3);
}

}  // namespace
