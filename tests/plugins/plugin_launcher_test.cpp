#include <cerrno>
#include <optional>

#include "tests/plugins/plugin_env.h"

namespace {

using Pelinor::Service::LogLevel;
using Pelinor::System::RunEnd;

class PluginLauncherTest : public TessardTest::PluginEnv {
  protected:
    // Launch times (seconds) of each plugin, by name.
    std::map<std::string, std::vector<double>> LaunchTimes() {
        std::map<std::string, std::vector<double>> times;
        for (const auto& l : processes.launches) {
            std::string name = l.argv[0].substr(BinDir().size());
            times[name.substr(0, name.rfind('.'))].push_back(l.at);
        }
        return times;
    }
};

TEST_F(PluginLauncherTest, FastBatchesRunThirtySecondsApartAndStopTheirPredecessor) {
    DescribePlugins(4, "fast");
    auto launcher = Start();
    EXPECT_TRUE(log.Has(LogLevel::Info,
                        "Number of fast plugins: 4, Throttle timeout: 30, Min period: 120"));
    EXPECT_FALSE(log.Has("Updated the period of the fast plugin queue to 120"));
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(log.Has(LogLevel::Info, "Plugin " + std::to_string(i) + " scheduled"));

    scheduler.RunUntil(420);
    auto times = LaunchTimes();
    // Each description names its own file; order of the listing decides the batch.
    std::vector<double> firstRuns;
    for (const auto& [name, at] : times) {
        ASSERT_EQ(at.size(), 2u) << name;
        EXPECT_DOUBLE_EQ(at[1] - at[0], 300) << "re-armed one period later";
        firstRuns.push_back(at[0]);
    }
    std::sort(firstRuns.begin(), firstRuns.end());
    EXPECT_EQ(firstRuns, (std::vector<double>{30, 60, 90, 120}));

    // Every batch stops the previous batch's process, with one SIGTERM each.
    ASSERT_GE(processes.terminated.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(processes.terminated[i].pid, processes.launches[i].pid);
        EXPECT_DOUBLE_EQ(processes.terminated[i].at, processes.launches[i + 1].at);
        EXPECT_EQ(processes.terminated[i].grace, std::chrono::seconds(5)) << "a tenth, at most 5 s";
        EXPECT_TRUE(log.Has(LogLevel::Info, std::to_string(processes.launches[i].pid) + " killed"));
    }
    EXPECT_EQ(processes.terminated[3].at, 330) << "the last plugin runs until the next cycle";
    EXPECT_TRUE(log.Has(LogLevel::Trivia, "Scheduled the next iteration"));
    EXPECT_TRUE(log.Has(LogLevel::Verbose, "Pushed plugin " + processes.launches[0].argv[0] + " (" +
                                               std::to_string(processes.launches[0].pid) +
                                               ") for tracking"));
}

TEST_F(PluginLauncherTest, FastPeriodGrowsToFitEveryBatch) {
    DescribePlugins(10, "fast");
    EXPECT_EQ(Start()->FastCategory()->period, 300u);
    EXPECT_FALSE(log.Has("Updated the period of the fast plugin queue to 300"));

    Describe("fast10", R"({"path": "fast10.sh"})");
    auto launcher = Start();
    EXPECT_EQ(launcher->FastCategory()->period, 330u);
    EXPECT_TRUE(log.Has(LogLevel::Info, "Updated the period of the fast plugin queue to 330"));
    EXPECT_EQ(launcher->SlowCategory()->period, 300u);
}

TEST_F(PluginLauncherTest, SlowPluginsRunTwoToABatch) {
    DescribePlugins(3, "slow");
    auto launcher = Start();
    EXPECT_TRUE(
        log.Has(LogLevel::Info, "Number of fast plugins: 0, Throttle timeout: 30, Min period: 0"));
    EXPECT_EQ(launcher->FastCategory()->scheduledItems.size(), 0u);
    EXPECT_EQ(launcher->SlowCategory()->scheduledItems.size(), 2u);

    scheduler.RunUntil(119);
    EXPECT_EQ(processes.launches.size(), 2u);
    EXPECT_EQ(log.Count("Reached end of plugin list"), 0);
    scheduler.RunUntil(120);
    EXPECT_EQ(processes.launches.size(), 3u);
    EXPECT_EQ(log.Count("Reached end of plugin list"), 1);
    EXPECT_EQ(processes.terminated.size(), 2u) << "batch 1 stops both plugins of batch 0";
    scheduler.RunUntil(420);
    std::vector<double> at;
    for (const auto& l : processes.launches) at.push_back(l.at);
    EXPECT_EQ(at, (std::vector<double>{60, 60, 120, 360, 360, 420}));
}

TEST_F(PluginLauncherTest, LaunchFailuresAreLoggedAndRetriedNextIteration) {
    DescribePlugins(2, "fast");
    auto launcher = Start();
    std::string group = "host/zol/kelpod/tessard-plugins";

    ktab.lookupStatus = ENOENT;
    scheduler.RunUntil(30);
    EXPECT_TRUE(
        log.Has(LogLevel::Error, "Group " + group + " was not found: No such file or directory"));
    std::string first = processes.launches.empty() ? "" : "launched";
    EXPECT_EQ(first, "") << "nothing launched";
    bool refused = false;
    for (const auto& m : log.Messages()) {
        refused |=
            m.starts_with("Failed resource pool prechecks; cannot launch plugin: " + BinDir() +
                          "fast") &&
            m.ends_with(".sh ++group=tessard-plugins,mem=40 -u http://localhost:8080 ");
    }
    EXPECT_TRUE(refused);
    EXPECT_EQ(log.Count("Peak requested reservation (MB): 0, Peak requested reservation of "
                        "children groups (MB): 0"),
              0);
    ktab.lookupStatus = 0;

    processes.launchError = ENOENT;
    log.Clear();
    scheduler.RunUntil(60);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Plugin launch failed: No such file or directory"));
    EXPECT_EQ(log.Count("Peak requested reservation (MB): 0, Peak requested reservation of "
                        "children groups (MB): 0"),
              2)
        << "after the pre-checks, and again after the failure";
    EXPECT_TRUE(launcher->FastCategory()->trackedPids.empty());
    processes.launchError = 0;

    processes.exitAtOnce = true;
    log.Clear();
    scheduler.RunUntil(330);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Plugin launched but failed to run: No such process"));
    EXPECT_EQ(log.Count("Peak requested reservation (MB): 0, Peak requested reservation of "
                        "children groups (MB): 0"),
              2);
    processes.exitAtOnce = false;

    // A process that ended by itself is only noted; one that cannot be signalled is forgotten.
    scheduler.RunUntil(360);
    int32_t exited = processes.launches.back().pid;
    processes.alive.erase(exited);
    scheduler.RunUntil(630);
    EXPECT_TRUE(log.Has(LogLevel::Trivia, std::to_string(exited) + " already killed"));
    int32_t stubborn = processes.launches.back().pid;
    processes.terminateError = EPERM;
    scheduler.RunUntil(660);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Could not kill " + std::to_string(stubborn) + ": 1"));
    EXPECT_EQ(launcher->FastCategory()->trackedPids.size(), 1u) << "only the new launch";
    processes.terminateError = 0;
}

TEST_F(PluginLauncherTest, EveryRunEndsInOneLineNamingThePlugin) {
    DescribePlugins(1, "fast");
    auto launcher = Start();
    std::vector<Tessard::PluginRunOutcome> seen;
    launcher->SetOutcomeObserver([&](const Tessard::PluginRunOutcome& o) { seen.push_back(o); });
    using Tessard::PluginEnd;
    auto ended = [](bool signalled, int status) {
        RunEnd end;
        end.signalled = signalled;
        end.status = status;
        end.runTime = std::chrono::milliseconds(1200);
        end.peakKb = 2048;
        return end;
    };
    // One batch every 300 s from 30 s on; each row ends (or stops) the run of its batch.
    // The kernel's own verdicts (exit 3, out of memory, SIGKILL after the grace) are seen
    // end to end.
    struct Row {
        std::optional<RunEnd> end;  // none: still running when the next batch stops it
        PluginEnd expected;
        int status;
        LogLevel level;
        std::string line;
    } rows[] = {
        {ended(false, 0), PluginEnd::Exited, 0, LogLevel::Info,
         "Plugin fast0 exited with status 0 (ran 1200 ms, peak memory 2048 KB)"},
        {ended(true, 11), PluginEnd::Signalled, 11, LogLevel::Warning,
         "Plugin fast0 was ended by signal 11 (ran 1200 ms, peak memory 2048 KB)"},
        {std::nullopt, PluginEnd::StoppedAtNextBatch, 15, LogLevel::Info,
         "Plugin fast0 was stopped at its next batch (ran 0 ms, peak memory 0 KB)"},
    };
    double at = 30;
    for (const auto& row : rows) {
        scheduler.RunUntil(at);
        if (row.end) processes.End(processes.launches.back().pid, *row.end);
        scheduler.RunUntil(at += 300);
        EXPECT_TRUE(log.Has(row.level, row.line)) << row.line;
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.back().end, row.expected) << row.line;
        EXPECT_EQ(seen.back().status, row.status) << row.line;
    }
    ASSERT_EQ(seen.size(), std::size(rows));
    EXPECT_EQ(seen[0].name, "fast0");
    EXPECT_EQ(seen[0].category, "fast");
    EXPECT_EQ(seen[0].period, std::chrono::seconds(300));
    EXPECT_EQ(seen[0].memoryLimitMb, 40u);
    EXPECT_EQ(seen[0].peakMemoryKb, 2048u);
    EXPECT_EQ(processes.launches[0].options.name, "fast0");
    EXPECT_EQ(processes.launches[0].options.pidsMax, 256u);

    processes.launchError = EACCES;
    scheduler.RunUntil(at + 300);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Plugin fast0 could not be launched: Permission denied"));
    EXPECT_EQ(seen.back().end, PluginEnd::LaunchFailed);
    EXPECT_EQ(seen.back().status, EACCES);
}

TEST_F(PluginLauncherTest, ResourcePoolChecksStopAtTheFirstFailure) {
    auto launcher = Start();
    ktab.peakKb = 1025;
    ktab.childrenPeakKb = 1024;
    ktab.childCount = 0;
    EXPECT_TRUE(launcher->ResourcePoolPrechecks());
    EXPECT_TRUE(log.Has(LogLevel::Info, "0 subgroups present in group 42"));
    EXPECT_TRUE(log.Has(LogLevel::Info,
                        "Peak requested reservation (MB): 2, Peak requested "
                        "reservation of children groups (MB): 1"));
    ktab.peakKb = 1;
    ktab.childrenPeakKb = 0;
    EXPECT_TRUE(launcher->PrintGroupStats());
    EXPECT_TRUE(
        log.Has("Peak requested reservation (MB): 1, Peak requested reservation of "
                "children groups (MB): 0"));

    ktab.signatureMatches = false;
    int lookups = ktab.lookups;
    EXPECT_FALSE(launcher->ResourcePoolPrechecks());
    EXPECT_TRUE(log.Has(LogLevel::Error, "MD5 signature mismatch with running hyxvisor built on " +
                                             std::string(20, 'K') +
                                             " (my build date: Nov 23 2026)"));
    EXPECT_EQ(ktab.lookups, lookups) << "the group is not looked up";
    ktab.signatureMatches = true;

    ktab.childrenStatus = EACCES;
    EXPECT_FALSE(launcher->ResourcePoolPrechecks());
    EXPECT_TRUE(log.Has(LogLevel::Error, "Could not check group 42: Permission denied"));
    ktab.childrenStatus = 0;

    // Statistics failures are logged but never fail the pre-checks.
    ktab.statsStatus = EIO;
    EXPECT_TRUE(launcher->ResourcePoolPrechecks());
    EXPECT_TRUE(log.Has(LogLevel::Error,
                        "Failed to retrieve memory statistics of the "
                        "tessard-plugins group: Input/output error"));
    ktab.statsStatus = 0;
    ktab.addIntStatus = ENOMEM;
    EXPECT_FALSE(launcher->PrintGroupStats());
    EXPECT_TRUE(log.Has(LogLevel::Error,
                        "Adding the tessard-plugins group to the parameter list "
                        "failed: Cannot allocate memory"));
    EXPECT_FALSE(launcher->ResourcePoolPrechecks()) << "the child count cannot be asked either";
    EXPECT_TRUE(log.Has("Could not check group 42: Cannot allocate memory"));
    ktab.addIntStatus = 0;
    ktab.failCreateAt = ktab.creates;
    EXPECT_FALSE(launcher->PrintGroupStats());
    EXPECT_TRUE(log.Has(LogLevel::Error, "Couldn't create parameter list: Out of Memory"));
    ktab.failCreateAt = ktab.creates;
    EXPECT_FALSE(launcher->ResourcePoolPrechecks());
    EXPECT_TRUE(log.Has("Group host/zol/kelpod/tessard-plugins was not found: Out of memory"));

    EXPECT_EQ(ktab.Outstanding(), 0u) << "every parameter list is destroyed on every path";
}

}  // namespace
