// What the daemon tells operators: per report name and per plugin what happened last, and
// the plugin pool's figures, as the status file's JSON and as Prometheus text.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plugins/plugin_outcome.h"
#include "plugins/plugin_schedule.h"
#include "report/report_outcome.h"

namespace Tessard {

using Clock = std::chrono::system_clock;

// Report names are chosen by clients: beyond this many, new names are only counted, as are
// names the daemon refuses.
constexpr size_t kMaxTrackedReportNames = 512;

struct DaemonFigures {
    std::string version;
    int32_t buildNumber = 0;
    int pid = 0;
    Clock::time_point started;
};

// Every method may be called from any thread.
class StatusBoard {
  public:
    explicit StatusBoard(DaemonFigures daemon);

    void OnReport(const ReportOutcome& outcome);
    void OnScheduled(const std::vector<PluginPlan>& plans);
    void OnStarted(const std::string& name, Clock::time_point at);
    void OnOutcome(const PluginRunOutcome& outcome);
    void OnPool(const PoolFigures& pool);
    // The last status of an orderly stop says so.
    void OnStopped(Clock::time_point at);

    // True once after every change.
    bool TakeChanged();

    std::string Json(Clock::time_point now) const;
    std::string Prometheus(Clock::time_point now) const;

  private:
    struct ReportState {
        std::optional<Clock::time_point> last;  // newest stored report
        int64_t size = 0;
        std::optional<uint32_t> writer;   // of the newest stored report
        std::map<int, uint64_t> answers;  // by HTTP status
    };
    // Report names in shards, so that reports of different names seldom take the same lock.
    struct ReportShard {
        std::mutex mutex;
        std::map<std::string, ReportState> reports;
        bool changed = false;
    };
    struct PluginState {
        PluginPlan plan;
        std::optional<Clock::time_point> lastStart;
        std::optional<PluginRunOutcome> last;
        std::map<PluginEnd, uint64_t> ends;
    };
    static constexpr size_t kReportShards = 16;

    // Every shard's names, merged in name order.
    std::map<std::string, ReportState> Reports() const;
    // The user database is asked once per writer.
    const std::string& UserName(uint32_t uid) const;

    mutable std::array<ReportShard, kReportShards> shards;
    std::atomic<size_t> trackedNames{0};
    std::atomic<uint64_t> untrackedReports{0};
    mutable std::mutex mutex;  // guards what follows
    const DaemonFigures daemon;
    mutable std::map<uint32_t, std::string> userNames;
    std::map<std::string, PluginState> plugins;
    PoolFigures pool;
    std::optional<Clock::time_point> stopped;
    bool changed = true;
};

// Lower-case name of how a run ended, as the status and the metrics show it.
const char* EndName(PluginEnd end);
// The exit status a shell would show: 128 + signal for ends by a signal, -1 when the
// plugin never started.
int ExitCode(const PluginRunOutcome& outcome);

}  // namespace Tessard
