// Launching plugins into the resource pool, stopping them, and saying how each run ended.
#include <algorithm>

#include "platform/base/app.h"
#include "platform/fs/files.h"
#include "platform/kernel/process.h"
#include "plugins/plugin_launcher.h"

namespace Tessard {

using Pelinor::Format;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;
using Pelinor::System::ProcessLauncher;
using Pelinor::System::RunEnd;

namespace {

// A plugin stopped by its category's next batch gets a tenth of the period to go by
// itself, and never more than this, before what is left of it is killed.
constexpr std::chrono::milliseconds kMaxStopGrace = std::chrono::seconds(5);
constexpr uint64_t kGraceShareOfPeriod = 10;

std::chrono::milliseconds GraceFor(uint64_t periodSeconds) {
    return std::min<std::chrono::milliseconds>(
        std::chrono::seconds(periodSeconds) / kGraceShareOfPeriod, kMaxStopGrace);
}

PluginEnd EndOf(const RunEnd& end) {
    if (end.killed) return PluginEnd::KilledAfterIgnoringTerm;
    if (end.stopped) return PluginEnd::StoppedAtNextBatch;
    if (end.outOfMemory) return PluginEnd::OutOfMemory;
    return end.signalled ? PluginEnd::Signalled : PluginEnd::Exited;
}

}  // namespace

void PluginLauncher::LaunchPlugin(const std::shared_ptr<Plugin>& plugin,
                                  std::vector<int32_t>& trackedPids) {
    PluginRunOutcome outcome;
    outcome.name = plugin->name;
    if (const PluginCategory* category = CategoryOf(trackedPids)) {
        outcome.category = category == fastCategory.get() ? "fast" : "slow";
        outcome.period = std::chrono::seconds(category->period);
    }
    outcome.started = std::chrono::system_clock::now();
    outcome.memoryLimitMb = static_cast<uint32_t>(resourcePoolSizeMb);
    outcome.end = PluginEnd::LaunchFailed;

    char* const* arguments = plugin->GetArguments();
    // What another user could have changed would run with the plugins' rights.
    if (std::string problem = Pelinor::System::TamperProblem(
            plugin->completePath, Pelinor::System::RootedPath(kPluginBinDir));
        !problem.empty()) {
        Report(outcome, problem);
        return;
    }
    if (!ResourcePoolPrechecks()) {
        Log(logger, LogLevel::Error, "Failed resource pool prechecks; cannot launch plugin: %1",
            plugin->GetCommandLine());
        Report(outcome, "the resource pool checks failed");
        return;
    }
    Log(logger, LogLevel::Info, "Launching binary: %1", plugin->GetCommandLine());

    Pelinor::System::RunOptions options;
    options.name = plugin->name;
    options.logger = logger;
    options.pidsMax = plugin->pidsMax;
    // Only root may choose who a plugin runs as; anyone else's plugins run as they do.
    if (Pelinor::System::OwnUid() == 0) options.user = {{pluginUser.uid, pluginUser.gid}};
    options.onEnd = [weak = weak_from_this(), outcome](const RunEnd& end) {
        auto self = weak.lock();
        if (!self) return;
        PluginRunOutcome finished = outcome;
        finished.end = EndOf(end);
        finished.status = end.status;
        finished.runTime = end.runTime;
        finished.peakMemoryKb = end.peakKb;
        self->Report(finished);
    };
    ProcessLauncher& launcher = *ProcessLauncher::sInstance;
    int32_t pid = -1;
    if (int error = launcher.Launch(arguments[0], arguments, options, pid); error != 0) {
        Log(logger, LogLevel::Error, "Plugin launch failed: %1", Pelinor::System::ErrorText(error));
        PrintGroupStats();
        outcome.status = error;
        Report(outcome, Pelinor::System::ErrorText(error));
        return;
    }
    // The process is reaped on this very thread, so it cannot be gone yet; its end is
    // reported when it is.
    if (int error = launcher.Signal(pid, Pelinor::System::kSignalProbe); error != 0) {
        Log(logger, LogLevel::Error, "Plugin launched but failed to run: %1",
            Pelinor::System::ErrorText(error));
        PrintGroupStats();
        return;
    }
    trackedPids.push_back(pid);
    Log(logger, LogLevel::Verbose, "Pushed plugin %1 (%2) for tracking", plugin->completePath, pid);
}

void PluginLauncher::KillPlugins(std::vector<int32_t>& trackedPids) {
    const PluginCategory* category = CategoryOf(trackedPids);
    auto grace = category != nullptr ? GraceFor(category->period) : kMaxStopGrace;
    ProcessLauncher& launcher = *ProcessLauncher::sInstance;
    for (int32_t pid : trackedPids) {
        // The whole group goes, whether or not the plugin itself is still there.
        int result = launcher.Stop(pid, grace);
        if (result == Pelinor::System::kNoSuchProcess) {
            Log(logger, LogLevel::Trivia, "%1 already killed", pid);
        } else if (result == 0) {
            Log(logger, LogLevel::Info, "%1 killed", pid);
        } else {
            Log(logger, LogLevel::Error, "Could not kill %1: %2", pid, result);
        }
    }
    trackedPids.clear();
}

void PluginLauncher::Report(const PluginRunOutcome& outcome, const std::string& reason) {
    std::string what;
    LogLevel level = LogLevel::Warning;
    switch (outcome.end) {
        case PluginEnd::Exited:
            what = Format("exited with status %1", outcome.status);
            if (outcome.status == 0) level = LogLevel::Info;
            break;
        case PluginEnd::Signalled:
            what = Format("was ended by signal %1", outcome.status);
            break;
        case PluginEnd::OutOfMemory:
            what = Format("was killed by the kernel: out of memory (limit %1 MB)",
                          outcome.memoryLimitMb);
            break;
        case PluginEnd::StoppedAtNextBatch:
            what = stopping ? "was stopped with the daemon" : "was stopped at its next batch";
            level = LogLevel::Info;
            break;
        case PluginEnd::KilledAfterIgnoringTerm:
            what = stopping ? "was stopped with the daemon" : "was stopped at its next batch";
            what += ": killed after ignoring SIGTERM";
            break;
        case PluginEnd::LaunchFailed:
            level = LogLevel::Error;
            what = "could not be launched: " + reason;
            break;
    }
    if (outcome.end == PluginEnd::LaunchFailed) {
        Log(logger, level, "Plugin %1 %2", outcome.name, what);
    } else {
        Log(logger, level, "Plugin %1 %2 (ran %3)", outcome.name, what,
            Format("%1 ms, peak memory %2 KB", outcome.runTime.count(), outcome.peakMemoryKb));
    }
    if (observer.ended) observer.ended(outcome);
}

}  // namespace Tessard
