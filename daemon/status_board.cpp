#include "daemon/status_board.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstdio>

#include "platform/base/accounts.h"
#include "platform/base/format.h"
#include "report/report_roller.h"

namespace Tessard {

namespace {

using Writer = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

constexpr int kSignalExitBase = 128;
constexpr int kKillSignal = 9;
constexpr int kTermSignal = 15;
constexpr int kNeverStarted = -1;
constexpr double kBytesPerKb = 1024.0;

double Seconds(Clock::time_point at) {
    return std::chrono::duration<double>(at.time_since_epoch()).count();
}

void Time(Writer& json, const char* key, const std::optional<Clock::time_point>& at) {
    json.Key(key);
    if (at) {
        std::string text;
        Pelinor::AppendUtc(text, *at);
        json.String(text.c_str());
    } else {
        json.Null();
    }
}

// Label values as the text format wants them: backslash, quote and newline escaped.
std::string Escape(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string Number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

class Metrics {
  public:
    // Each family once, with its help and type; the samples that follow are its.
    void Family(const char* name, const char* type, const char* help) {
        family = name;
        out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    void Sample(const std::vector<std::pair<const char*, std::string>>& labels, double value) {
        out += family;
        if (!labels.empty()) {
            out += '{';
            for (size_t i = 0; i < labels.size(); ++i) {
                if (i > 0) out += ',';
                out += std::string(labels[i].first) + "=\"" + Escape(labels[i].second) + "\"";
            }
            out += '}';
        }
        out.append(" ").append(Number(value)).append("\n");
    }
    std::string out;

  private:
    const char* family = "";
};

}  // namespace

const char* EndName(PluginEnd end) {
    switch (end) {
        case PluginEnd::Exited:
            return "exited";
        case PluginEnd::Signalled:
            return "signalled";
        case PluginEnd::OutOfMemory:
            return "oom_killed";
        case PluginEnd::StoppedAtNextBatch:
            return "stopped";
        case PluginEnd::KilledAfterIgnoringTerm:
            return "killed";
        case PluginEnd::LaunchFailed:
            return "launch_failed";
    }
    return "unknown";
}

int ExitCode(const PluginRunOutcome& outcome) {
    switch (outcome.end) {
        case PluginEnd::Exited:
            return outcome.status;
        case PluginEnd::Signalled:
            return kSignalExitBase + outcome.status;
        case PluginEnd::OutOfMemory:
        case PluginEnd::KilledAfterIgnoringTerm:
            return kSignalExitBase + kKillSignal;
        case PluginEnd::StoppedAtNextBatch:
            return kSignalExitBase + kTermSignal;
        case PluginEnd::LaunchFailed:
            return kNeverStarted;
    }
    return kNeverStarted;
}

StatusBoard::StatusBoard(DaemonFigures daemon) : daemon(std::move(daemon)) {}

void StatusBoard::OnReport(const ReportOutcome& outcome) {
    ReportShard& shard = shards[std::hash<std::string>{}(outcome.name) % kReportShards];
    std::lock_guard lock(shard.mutex);
    shard.changed = true;
    auto found = shard.reports.find(outcome.name);
    if (found == shard.reports.end()) {
        // Names the daemon refuses are any bytes a client sent: counted, never shown.
        if (!IsReportName(outcome.name) ||
            trackedNames.fetch_add(1, std::memory_order_relaxed) >= kMaxTrackedReportNames) {
            untrackedReports.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        found = shard.reports.emplace(outcome.name, ReportState{}).first;
    }
    ReportState& report = found->second;
    ++report.answers[outcome.code];
    if (outcome.code == 200) {
        report.last = outcome.at;
        report.size = outcome.size;
        report.writer = outcome.writer;
    }
}

std::map<std::string, StatusBoard::ReportState> StatusBoard::Reports() const {
    std::map<std::string, ReportState> all;
    for (ReportShard& shard : shards) {
        std::lock_guard lock(shard.mutex);
        all.insert(shard.reports.begin(), shard.reports.end());
    }
    return all;
}

void StatusBoard::OnScheduled(const std::vector<PluginPlan>& plans) {
    std::lock_guard lock(mutex);
    std::map<std::string, PluginState> scheduled;
    for (const PluginPlan& plan : plans) {
        auto found = plugins.find(plan.name);
        PluginState state = found != plugins.end() ? std::move(found->second) : PluginState{};
        state.plan = plan;
        scheduled[plan.name] = std::move(state);
    }
    plugins = std::move(scheduled);  // what is no longer scheduled goes
    changed = true;
}

void StatusBoard::OnStarted(const std::string& name, Clock::time_point at) {
    std::lock_guard lock(mutex);
    if (auto found = plugins.find(name); found != plugins.end()) found->second.lastStart = at;
    changed = true;
}

void StatusBoard::OnOutcome(const PluginRunOutcome& outcome) {
    std::lock_guard lock(mutex);
    PluginState& state = plugins[outcome.name];
    if (state.plan.name.empty()) {
        state.plan = {outcome.name, outcome.category, outcome.period, {}, outcome.memoryLimitMb};
    }
    state.last = outcome;
    ++state.ends[outcome.end];
    changed = true;
}

void StatusBoard::OnPool(const PoolFigures& figures) {
    std::lock_guard lock(mutex);
    changed = changed || figures != pool;
    pool = figures;
}

void StatusBoard::OnStopped(Clock::time_point at) {
    std::lock_guard lock(mutex);
    stopped = at;
    changed = true;
}

const std::string& StatusBoard::UserName(uint32_t uid) const {
    auto found = userNames.find(uid);
    if (found == userNames.end())
        found = userNames.emplace(uid, Pelinor::System::UserName(uid)).first;
    return found->second;
}

bool StatusBoard::TakeChanged() {
    bool any = false;
    for (ReportShard& shard : shards) {
        std::lock_guard lock(shard.mutex);
        any = std::exchange(shard.changed, false) || any;
    }
    std::lock_guard lock(mutex);
    return std::exchange(changed, false) || any;
}

std::string StatusBoard::Json(Clock::time_point now) const {
    const auto reports = Reports();
    std::lock_guard lock(mutex);
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    json.StartObject();
    json.Key("daemon");
    json.StartObject();
    json.Key("version");
    json.String(daemon.version.c_str());
    json.Key("build");
    json.Int(daemon.buildNumber);
    json.Key("pid");
    json.Int(daemon.pid);
    Time(json, "started", daemon.started);
    Time(json, "updated", now);
    Time(json, "stopped", stopped);
    json.EndObject();

    json.Key("reports");
    json.StartArray();
    for (const auto& [name, report] : reports) {
        json.StartObject();
        json.Key("name");
        json.String(name.c_str());
        Time(json, "last", report.last);
        json.Key("size");
        json.Int64(report.size);
        json.Key("writer");
        if (report.writer) {
            json.String(UserName(*report.writer).c_str());
        } else {
            json.Null();
        }
        json.Key("answers");
        json.StartObject();
        for (const auto& [code, count] : report.answers) {
            json.Key(std::to_string(code).c_str());
            json.Uint64(count);
        }
        json.EndObject();
        json.EndObject();
    }
    json.EndArray();
    json.Key("untrackedReports");
    json.Uint64(untrackedReports.load(std::memory_order_relaxed));

    json.Key("plugins");
    json.StartArray();
    for (const auto& [name, plugin] : plugins) {
        json.StartObject();
        json.Key("name");
        json.String(name.c_str());
        json.Key("category");
        json.String(plugin.plan.category.c_str());
        json.Key("period");
        json.Int64(plugin.plan.period.count());
        json.Key("memoryLimitMb");
        json.Uint(plugin.plan.memoryLimitMb);
        Time(json, "lastStart", plugin.lastStart);
        json.Key("lastOutcome");
        if (plugin.last) {
            const PluginRunOutcome& last = *plugin.last;
            json.StartObject();
            json.Key("end");
            json.String(EndName(last.end));
            json.Key("status");
            json.Int(last.status);
            json.Key("exitCode");
            json.Int(ExitCode(last));
            Time(json, "started", last.started);
            json.Key("runTimeMs");
            json.Int64(last.runTime.count());
            json.Key("peakMemoryKb");
            json.Uint64(last.peakMemoryKb);
            json.EndObject();
        } else {
            json.Null();
        }
        json.Key("runs");
        json.StartObject();
        for (const auto& [end, count] : plugin.ends) {
            json.Key(EndName(end));
            json.Uint64(count);
        }
        json.EndObject();
        json.EndObject();
    }
    json.EndArray();

    json.Key("pool");
    json.StartObject();
    json.Key("found");
    json.Bool(pool.found);
    if (pool.found) {
        json.Key("childGroups");
        json.Uint(pool.childGroups);
        json.Key("peakMemoryKb");
        json.Uint64(pool.peakKb);
        json.Key("childrenPeakMemoryKb");
        json.Uint64(pool.childrenPeakKb);
    } else {
        json.Key("problem");
        json.String(pool.problem.c_str());
    }
    json.EndObject();
    json.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

std::string StatusBoard::Prometheus(Clock::time_point now) const {
    const auto reports = Reports();
    std::lock_guard lock(mutex);
    Metrics m;
    m.Family("tessard_info", "gauge", "Version and build of the running daemon.");
    m.Sample({{"version", daemon.version}, {"build", std::to_string(daemon.buildNumber)}}, 1);
    m.Family("tessard_start_time_seconds", "gauge", "When the daemon started, Unix time.");
    m.Sample({}, Seconds(daemon.started));
    m.Family("tessard_status_time_seconds", "gauge", "When these figures were written, Unix time.");
    m.Sample({}, Seconds(now));

    m.Family("tessard_report_last_seconds", "gauge",
             "When the newest report was stored, Unix time.");
    for (const auto& [name, report] : reports)
        if (report.last) m.Sample({{"name", name}}, Seconds(*report.last));
    m.Family("tessard_report_size_bytes", "gauge", "Size of the newest stored report.");
    for (const auto& [name, report] : reports)
        if (report.last) m.Sample({{"name", name}}, static_cast<double>(report.size));
    m.Family("tessard_reports_total", "counter", "Report requests answered, by HTTP status.");
    for (const auto& [name, report] : reports)
        for (const auto& [code, count] : report.answers)
            m.Sample({{"name", name}, {"code", std::to_string(code)}}, static_cast<double>(count));
    m.Family("tessard_reports_untracked_total", "counter",
             "Report requests of refused names or of names beyond the tracked number.");
    m.Sample({}, static_cast<double>(untrackedReports.load(std::memory_order_relaxed)));

    m.Family("tessard_plugin_period_seconds", "gauge", "Period of each scheduled plugin.");
    for (const auto& [name, plugin] : plugins)
        m.Sample({{"plugin", name}, {"category", plugin.plan.category}},
                 static_cast<double>(plugin.plan.period.count()));
    m.Family("tessard_plugin_last_start_seconds", "gauge",
             "When the plugin last started, Unix time.");
    for (const auto& [name, plugin] : plugins)
        if (plugin.lastStart) m.Sample({{"plugin", name}}, Seconds(*plugin.lastStart));
    m.Family("tessard_plugin_last_exit", "gauge",
             "Exit status of the last run: 128+N for signal N, -1 when it did not start.");
    for (const auto& [name, plugin] : plugins)
        if (plugin.last) m.Sample({{"plugin", name}}, ExitCode(*plugin.last));
    m.Family("tessard_plugin_duration_seconds", "gauge", "Run time of the last run.");
    for (const auto& [name, plugin] : plugins)
        if (plugin.last)
            m.Sample({{"plugin", name}},
                     std::chrono::duration<double>(plugin.last->runTime).count());
    m.Family("tessard_plugin_peak_memory_bytes", "gauge", "Peak memory of the last run.");
    for (const auto& [name, plugin] : plugins)
        if (plugin.last)
            m.Sample({{"plugin", name}},
                     static_cast<double>(plugin.last->peakMemoryKb) * kBytesPerKb);
    m.Family("tessard_plugin_runs_total", "counter", "Finished runs, by how they ended.");
    for (const auto& [name, plugin] : plugins)
        for (const auto& [end, count] : plugin.ends)
            m.Sample({{"plugin", name}, {"end", EndName(end)}}, static_cast<double>(count));
    m.Family("tessard_plugin_oom_kills_total", "counter", "Runs killed by the kernel for memory.");
    for (const auto& [name, plugin] : plugins) {
        auto oom = plugin.ends.find(PluginEnd::OutOfMemory);
        m.Sample({{"plugin", name}},
                 static_cast<double>(oom == plugin.ends.end() ? 0 : oom->second));
    }

    m.Family("tessard_pool_found", "gauge", "Whether the plugin pool group exists.");
    m.Sample({}, pool.found ? 1 : 0);
    if (pool.found) {
        m.Family("tessard_pool_child_groups", "gauge", "Plugin groups in the pool now.");
        m.Sample({}, pool.childGroups);
        m.Family("tessard_pool_peak_memory_bytes", "gauge", "Peak memory of the whole pool.");
        m.Sample({}, static_cast<double>(pool.peakKb) * kBytesPerKb);
    }
    return m.out;
}

}  // namespace Tessard
