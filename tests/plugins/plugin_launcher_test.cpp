#include <cerrno>
#include <functional>
#include <optional>

#include "tests/plugins/plugin_env.h"

namespace {

using Pelinor::Service::LogLevel;
using Pelinor::System::RunEnd;

class PluginLauncherTest : public TessardTest::PluginEnv {
  protected:
    // First launch time (seconds) of each plugin, in time order, and the time between its
    // first two launches.
    std::pair<std::vector<double>, double> FirstLaunches() {
        std::map<std::string, std::vector<double>> times;
        for (const auto& l : processes.launches) times[l.argv[0]].push_back(l.at);
        std::vector<double> first;
        double period = 0;
        for (const auto& [name, at] : times) {
            first.push_back(at[0]);
            if (at.size() > 1) period = at[1] - at[0];
        }
        std::sort(first.begin(), first.end());
        return {first, period};
    }
};

TEST_F(PluginLauncherTest, BatchesAreSpreadOverTheirPeriod) {
    // Fast batches of one plugin 30 s apart, slow batches of two 60 s apart; the fast period
    // grows to fit every batch.
    struct Row {
        int count;
        std::string category;
        std::vector<double> firstLaunches;
        double period;
    } rows[] = {
        {4, "fast", {30, 60, 90, 120}, 300},
        {11, "fast", {30, 60, 90, 120, 150, 180, 210, 240, 270, 300, 330}, 330},
        {3, "slow", {60, 60, 120}, 300},
    };
    for (const Row& row : rows) {
        std::filesystem::remove_all(ConfigDir());
        std::filesystem::create_directories(ConfigDir());
        processes.launches.clear();
        TessardTest::ManualScheduler clock;  // takes this row's timers with it
        processes.clock = &clock;
        DescribePlugins(row.count, row.category);
        auto launcher = Start();
        clock.RunUntil(700);
        auto [first, period] = FirstLaunches();
        EXPECT_EQ(first, row.firstLaunches) << row.count << " " << row.category;
        EXPECT_DOUBLE_EQ(period, row.period) << row.count << " " << row.category;
        EXPECT_EQ(launcher->Plans().at(0).period.count(), row.period);
    }
    processes.clock = &scheduler;
}

TEST_F(PluginLauncherTest, EachBatchStopsItsPredecessorWithATenthOfThePeriodAsGrace) {
    DescribePlugins(4, "fast");
    auto launcher = Start();
    scheduler.RunUntil(420);
    ASSERT_GE(processes.terminated.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(processes.terminated[i].pid, processes.launches[i].pid);
        EXPECT_DOUBLE_EQ(processes.terminated[i].at, processes.launches[i + 1].at);
        EXPECT_EQ(processes.terminated[i].grace, std::chrono::seconds(5)) << "a tenth, at most 5 s";
    }
    EXPECT_EQ(processes.terminated[3].at, 330) << "the last plugin runs until the next cycle";
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

TEST_F(PluginLauncherTest, EveryBatchChecksThePoolAndLaunchesOnlyWhenItIsThere) {
    DescribePlugins(1, "fast");
    auto launcher = Start();
    // One batch every 300 s from 30 s on, each with one fault of the kernel or the launch.
    struct Row {
        std::function<void()> fault;
        bool launches;
        std::string line;  // an error unless launched
    } rows[] = {
        {[&] { ktab.signatureMatches = false; }, false,
         "MD5 signature mismatch with running hyxvisor built on " + std::string(20, 'K') +
             " (my build date: Nov 23 2026)"},
        {[&] { ktab.lookupStatus = ENOENT; }, false,
         "Group host/zol/kelpod/tessard-plugins was not found: No such file or directory"},
        {[&] { ktab.childrenStatus = EACCES; }, false,
         "Could not check group 42: Permission denied"},
        {[&] { ktab.addIntStatus = ENOMEM; }, false,
         "Could not check group 42: Cannot allocate memory"},
        {[&] { ktab.failCreateAt = ktab.creates; }, false,
         "Group host/zol/kelpod/tessard-plugins was not found: Out of memory"},
        {[&] { processes.launchError = ENOENT; }, false,
         "Plugin launch failed: No such file or directory"},
        {[&] { processes.exitAtOnce = true; }, true,
         "Plugin launched but failed to run: No such process"},
        // Statistics failures are logged but never stop a launch.
        {[&] { ktab.statsStatus = EIO; }, true,
         "Failed to retrieve memory statistics of the tessard-plugins group: Input/output error"},
        {[&] { ktab.peakKb = 1025, ktab.childrenPeakKb = 1024; }, true,
         "Peak requested reservation (MB): 2, Peak requested reservation of children groups "
         "(MB): 1"},
        {[&] { processes.terminateError = EPERM; }, true, "Could not kill"},
    };
    double at = 30;
    for (const Row& row : rows) {
        scheduler.RunUntil(at - 1);
        row.fault();
        size_t launches = processes.launches.size();
        const std::string line =
            row.line != "Could not kill"
                ? row.line
                : "Could not kill " + std::to_string(processes.launches.back().pid) + ": 1";
        scheduler.RunUntil(at);
        EXPECT_EQ(processes.launches.size() > launches, row.launches) << line;
        EXPECT_TRUE(log.Has(line)) << line;
        ktab.signatureMatches = true;
        ktab.lookupStatus = ktab.childrenStatus = ktab.addIntStatus = ktab.statsStatus = 0;
        ktab.failCreateAt = -1;
        processes.launchError = processes.terminateError = 0;
        processes.exitAtOnce = false;
        at += 300;
    }
    EXPECT_EQ(ktab.Outstanding(), 0u) << "every parameter list is destroyed on every path";
}

}  // namespace
