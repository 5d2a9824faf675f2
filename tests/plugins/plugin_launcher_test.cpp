// The plugin launcher with its platform seams faked: descriptions and configuration in a
// temporary root, batches on a manual clock, a scripted kernel interface and a process
// launcher without processes.
#include "plugins/plugin_launcher.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "platform/base/app.h"
#include "platform/kernel/ktab.h"
#include "platform/kernel/process.h"
#include "tests/support/fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace Ktab = Pelinor::Ktab;
namespace System = Pelinor::System;
using Ktab::Node;
using Ktab::ParamList;
using Pelinor::Service::LogLevel;
using System::RunEnd;
using Tessard::PluginEnd;
using namespace std::chrono_literals;
using namespace TessardTest;

// Timers on a clock that moves only when the test runs it; in use while it lives.
struct ManualScheduler : Installed<System::Scheduler> {
    void Schedule(const System::ScheduledCallback& callback, int64_t delayUs,
                  Pelinor::Ref<System::ScheduledItem>& item) override {
        auto timer = Pelinor::MakeRef<Timer>(callback);
        item = timer;
        queue.emplace(nowUs + delayUs, timer);  // after those due at the same time
    }
    // Runs every callback due up to `seconds` (absolute), in time order.
    void RunUntil(double seconds) {
        auto until = static_cast<int64_t>(seconds * 1e6);
        while (!queue.empty() && queue.begin()->first <= until) {
            auto next = queue.extract(queue.begin());
            nowUs = next.key();
            if (!next.mapped()->cancelled) next.mapped()->callback(next.mapped().Get());
        }
        nowUs = until;
    }
    // The time of the scheduler in use.
    static double Now() { return static_cast<ManualScheduler&>(*sInstance).nowUs / 1e6; }

    struct Timer : System::ScheduledItem {
        explicit Timer(System::ScheduledCallback callback) : callback(std::move(callback)) {}
        void Cancel() override { cancelled = true; }
        System::ScheduledCallback callback;
        bool cancelled = false;
    };

    int64_t nowUs = 0;
    std::multimap<int64_t, Pelinor::Ref<Timer>> queue;
};

// The cgroup interface on whatever tree $TESSARD_CGROUP_ROOT names, with the faults a test
// switches on. (A list never destroyed is a leak that the sanitizer run of these tests reports.)
struct FakeKtab : Installed<Ktab::Interface> {
    struct Faults {
        bool signatureMismatch = false;
        bool outOfMemory = false;  // ParamListCreate returns nullptr
        Ktab::Status lookup = 0, children = 0, addInt = 0, stats = 0;
    } fail;

    int CheckSig(char* buildDate, size_t size, const char** myBuildDate) override {
        if (!fail.signatureMismatch) return real.CheckSig(buildDate, size, myBuildDate);
        std::memset(buildDate, 'K', size);  // no terminator: the caller must add it
        *myBuildDate = "Nov 23 2026";
        return 1;
    }
    ParamList* ParamListCreate(int kind, int count) override {
        if (fail.outOfMemory) return nullptr;
        return real.ParamListCreate(kind, count);
    }
    Ktab::Status ParamListAddString(ParamList* list, const char* text) override {
        return real.ParamListAddString(list, text);
    }
    Ktab::Status ParamListAddInt(ParamList* list, uint64_t value) override {
        return fail.addInt != 0 ? fail.addInt : real.ParamListAddInt(list, value);
    }
    uint32_t ParamListNumInstances(const ParamList* list) override {
        return real.ParamListNumInstances(list);
    }
    void ParamListDestroy(ParamList* list) override { real.ParamListDestroy(list); }
    Ktab::Status Set(Node node, ParamList* instances, ParamList* params, void* out,
                     size_t size) override {
        return fail.lookup != 0 ? fail.lookup : real.Set(node, instances, params, out, size);
    }
    Ktab::Status GetInstanceListAlloc(Node node, ParamList* params, ParamList** out) override {
        return fail.children != 0 ? fail.children : real.GetInstanceListAlloc(node, params, out);
    }
    Ktab::Status Get(Node node, ParamList* params, void* out, size_t size) override {
        return fail.stats != 0 ? fail.stats : real.Get(node, params, out, size);
    }

    Ktab::Interface& real = Real();
};

// Runs that end when the test says so, or when stopped.
struct FakeProcessLauncher : Installed<System::ProcessLauncher> {
    struct Faults {
        int launch = 0;           // returned by Launch
        bool exitAtOnce = false;  // launched processes are gone before the probe
        int stop = 0;             // returned by Stop of a live process
    } fail;
    struct Run {
        int32_t pid;
        std::vector<std::string> argv;
        double at;
        System::RunOptions options;
        bool alive;
        double stoppedAt = -1;  // when Stop reached it alive
        std::chrono::milliseconds grace{0};
    };
    std::vector<Run> launches;  // the first has pid 1000, the next 1001...

    // Ends a live run as the kernel would tell it.
    void End(int32_t pid, const RunEnd& end) {
        if (Run* run = Live(pid)) {
            run->alive = false;
            run->options.onEnd(end);
        }
    }
    int Launch(const char* path, char* const argv[], const System::RunOptions& options,
               int32_t& pid) override {
        if (fail.launch != 0) return fail.launch;
        std::vector<std::string> args;
        for (char* const* arg = argv; *arg != nullptr; ++arg) args.emplace_back(*arg);
        if (args.at(0) != path) return EINVAL;
        pid = 1000 + static_cast<int32_t>(launches.size());
        launches.push_back({pid, args, ManualScheduler::Now(), options, !fail.exitAtOnce});
        return 0;
    }
    int Signal(int32_t pid, int) override { return Live(pid) ? 0 : ESRCH; }
    int Stop(int32_t pid, std::chrono::milliseconds grace) override {
        Run* run = Live(pid);
        if (run == nullptr) return ESRCH;
        if (fail.stop != 0) return fail.stop;
        run->stoppedAt = ManualScheduler::Now();
        run->grace = grace;
        End(pid, RunEnd{.signalled = true, .status = SIGTERM, .stopped = true});
        return 0;
    }
    bool WaitIdle(std::chrono::milliseconds) override { return true; }

    Run* Live(int32_t pid) {
        auto at = static_cast<size_t>(pid - 1000);
        return at < launches.size() && launches[at].alive ? &launches[at] : nullptr;
    }
};

// A plugin installation in a temporary root, with its configuration file loaded.
struct PluginLauncherTest : testing::Test {
    void SetUp() override {
        ::setenv("TESSARD_ROOT", root.Path().c_str(), 1);
        fs::create_directories(ConfigDir());
        fs::create_directories(BinDir());
        Tessard::fastTimePeriodMin = 5;
        Tessard::resourcePoolSizeMb = 40;
        Configure("<httpPort>8080</httpPort>");
        // A pool of plain files: its peak is 1025 KB, its one child group's 1024 KB.
        ::setenv("TESSARD_CGROUP_ROOT", root.Path().c_str(), 1);
        fs::create_directories(pool + "/run-1-0");
        WriteFile(root / "memory.limit_in_bytes", "0");
        WriteFile(pool + "/memory.max_usage_in_bytes", "1049600");
        WriteFile(pool + "/run-1-0/memory.max_usage_in_bytes", "1048576\n");
    }
    void TearDown() override {
        ::unsetenv("TESSARD_ROOT");
        ::unsetenv("TESSARD_CGROUP_ROOT");
    }

    // Loads a configuration file holding `xml` inside <config>.
    void Configure(const std::string& xml) {
        WriteFile(root / "config.xml", "<config>" + xml + "</config>");
        Pelinor::Service::InitApp(root / "config.xml");
    }
    std::string ConfigDir() const { return root.Path() + Tessard::kPluginConfigDir; }
    std::string BinDir() const { return root.Path() + Tessard::kPluginBinDir; }
    void Describe(const std::string& file, const std::string& json) {
        WriteFile(ConfigDir() + file, json);
    }
    void DescribePlugins(int count, const std::string& frequency) {
        for (int i = 0; i < count; ++i) {
            std::string name = frequency + std::to_string(i);
            Describe(name,
                     R"({"path": ")" + name + R"(.sh", "frequency": ")" + frequency + R"("})");
        }
    }
    std::shared_ptr<Tessard::PluginLauncher> Start(Tessard::PluginObserver observer = {}) {
        auto launcher = std::make_shared<Tessard::PluginLauncher>();
        launcher->SetObserver(std::move(observer));
        launcher->Init();
        return launcher;
    }

    TempDir root;
    const std::string pool = root / Ktab::kPoolPath;
    LogCapture log;
    ManualScheduler scheduler;
    FakeKtab ktab;
    FakeProcessLauncher processes;
};

TEST_F(PluginLauncherTest, DescriptionsAndOverridesMakeThePluginsAndTheirCommandLines) {
    Tessard::Plugin first{Tessard::PluginConfiguration{}};  // with the fixture's port, 8080
    // No port now: each plugin looks it up again and is told the endpoint's default one.
    Configure(R"(<pluginOverrides><rpSizeMb>128</rpSizeMb>
        <o1><frequency>Fast</frequency><loglevel>Debug</loglevel></o1>
        <o2><frequency>sometimes</frequency><loglevel>verbose</loglevel></o2>
        <o3><enabled>false</enabled></o3>
        <sub><check><loglevel>ERROR</loglevel><frequency>slow</frequency></check></sub>
      </pluginOverrides>)");
    Describe("o1", R"({"path": "o1.sh", "frequency": "slow"})");
    Describe("o2", R"({"path": "o2.sh", "frequency": "slow"})");
    Describe("o3", R"({"path": "o3.sh"})");
    Describe("sub", R"({"path": "sub/check.sh"})");
    Describe("disk", R"({"path": "checks/disk_usage.py", "frequency": "slow"})");
    Describe("mem.json", R"({"path": "mem.sh", "frequency": "Medium", "enabled": false})");
    Describe("dup1", R"({"path": "x.y.z", "path": "ignored", "frequency": "SLOWLY"})");
    Describe("dup2", R"({"path": "x.y.z", "frequency": "fas"})");
    Describe("tools", R"({"path": "tools.d/check"})");
    Describe("noext", R"({"path": "noext", "frequency": "fast"})");
    Describe("number", R"({"path": 7})");
    Describe("absolute", R"({"path": "/usr/bin/x"})");
    Describe("array", R"(["path"])");
    Describe("trailing", R"({"path": "t.sh"},)");
    Describe("nul", std::string(R"({"path": "cut\u0000rest.sh"})"));
    fs::create_directory(ConfigDir() + "subdir");

    auto launcher = Start();
    std::vector<std::string> scheduled;  // "name:category"
    for (const auto& p : launcher->Plans()) scheduled.push_back(p.name + ":" + p.category);
    std::sort(scheduled.begin(), scheduled.end());
    // "medium" runs with the slow plugins; a description's own "enabled" does not count.
    EXPECT_EQ(scheduled,
              (std::vector<std::string>{"checks/disk_usage:slow", "cut:fast", "mem:slow",
                                        "noext:fast", "o1:fast", "o2:fast", "sub/check:slow",
                                        "tools:fast", "x.y:fast", "x.y:slow"}));
    for (std::string bad : {"number", "array", "trailing", "subdir"})
        EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to parse " + ConfigDir() + bad)) << bad;
    EXPECT_TRUE(
        log.Has(LogLevel::Error, "Invalid configuration. Plugin path is not relative: /usr/bin/x"));

    scheduler.RunUntil(240);                       // the first batch of each category, once
    std::map<std::string, std::string> arguments;  // after the path, by plugin file
    for (const auto& l : processes.launches) {
        for (size_t i = 1; i < l.argv.size(); ++i)
            arguments[l.argv[0].substr(BinDir().size())] += " " + l.argv[i];
    }
    const std::string common = " ++group=tessard-plugins,mem=128 -u http://localhost:9996";
    EXPECT_EQ(arguments["o1.sh"], common + " --loglevel=debug");
    EXPECT_EQ(arguments["o2.sh"], common);
    EXPECT_EQ(arguments["sub/check.sh"], common + " --loglevel=error");
}

TEST_F(PluginLauncherTest, LauncherWideOverridesOutsideTheirLimitsAreRefused) {
    Describe("a", R"({"path": "a.sh"})");
    struct Case {
        std::string period, pool;
        int64_t expectPeriodMin;
        uint32_t expectPool;
        bool poolError;
    };
    for (const Case& c : std::vector<Case>{{"5", "40", 5, 40, true},
                                           {"-10", "41", 5, 41, false},
                                           {"7", "500", 7, 500, false},
                                           {"0", "501", 5, 40, true}}) {
        Tessard::fastTimePeriodMin = 5;
        Tessard::resourcePoolSizeMb = 40;
        Configure("<pluginOverrides><fast><timePeriodMin>" + c.period +
                  "</timePeriodMin></fast><rpSizeMb>" + c.pool + "</rpSizeMb></pluginOverrides>");
        auto plan = Start()->Plans().at(0);
        EXPECT_EQ(plan.period.count(), c.expectPeriodMin * 60) << c.period;
        EXPECT_EQ(plan.memoryLimitMb, c.expectPool) << c.pool;
        EXPECT_EQ(log.Has(LogLevel::Error,
                          "Configured resource pool size: " + c.pool + "MB is outside limits"),
                  c.poolError)
            << c.pool;
    }
}

TEST_F(PluginLauncherTest, BatchesAreSpreadOverTheirPeriodAndEachStopsItsPredecessor) {
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
        for (const auto& entry : fs::directory_iterator(ConfigDir())) fs::remove(entry);
        processes.launches.clear();
        ManualScheduler clock;  // takes this row's timers with it
        DescribePlugins(row.count, row.category);
        auto launcher = Start();
        clock.RunUntil(700);
        std::map<std::string, std::vector<double>> times;  // of each plugin's launches
        for (const auto& l : processes.launches) times[l.argv[0]].push_back(l.at);
        std::vector<double> first;
        for (const auto& [name, at] : times) first.push_back(at[0]);
        std::sort(first.begin(), first.end());
        const auto& some = times.begin()->second;
        EXPECT_EQ(first, row.firstLaunches) << row.count << " " << row.category;
        EXPECT_DOUBLE_EQ(some.at(1) - some[0], row.period) << row.count << " " << row.category;
        EXPECT_EQ(launcher->Plans().at(0).period.count(), row.period);
        // Each run is stopped by the next batch of its category (the last ones are still
        // running), with a tenth of the period, at most 5 s, as grace.
        for (const auto& l : processes.launches) {
            double next = -1;
            for (const auto& m : processes.launches)
                if (m.at > l.at && (next < 0 || m.at < next)) next = m.at;
            EXPECT_EQ(std::pair(l.stoppedAt, l.grace), std::pair(next, next < 0 ? 0ms : 5000ms))
                << row.count << " " << row.category << " " << l.at;
        }
    }
}

TEST_F(PluginLauncherTest, EveryRunEndsInOneLineAndEveryBatchChecksThePoolBeforeItLaunches) {
    DescribePlugins(1, "fast");
    std::vector<Tessard::PluginRunOutcome> seen;
    auto launcher = Start({.ended = [&](const auto& outcome) { seen.push_back(outcome); }});
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
        {RunEnd{.status = 0, .peakKb = 2048, .runTime = 1200ms}, PluginEnd::Exited, 0,
         LogLevel::Info, "Plugin fast0 exited with status 0 (ran 1200 ms, peak memory 2048 KB)"},
        {RunEnd{.signalled = true, .status = 11, .peakKb = 2048, .runTime = 1200ms},
         PluginEnd::Signalled, 11, LogLevel::Warning,
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
        EXPECT_EQ(std::pair(seen.back().end, seen.back().status),
                  std::pair(row.expected, row.status))
            << row.line;
    }
    ASSERT_EQ(seen.size(), std::size(rows));
    const auto& first = seen[0];
    EXPECT_EQ(std::tuple(first.name, first.category, first.period.count(), first.memoryLimitMb,
                         first.peakMemoryKb),
              std::tuple("fast0", "fast", 300, 40u, 2048u));

    struct stat status {};
    ASSERT_EQ(::stat(pool.c_str(), &status), 0);
    const std::string cannotCheck = "Could not check group " + std::to_string(status.st_ino);
    // The next batches, 300 s apart, each with one fault of the kernel or the launch.
    struct Fault {
        std::function<void()> fault;
        bool launches;
        std::string line;  // an error unless launched
    } faults[] = {
        {[&] { ktab.fail.signatureMismatch = true; }, false,
         "MD5 signature mismatch with running hyxvisor built on " + std::string(20, 'K') +
             " (my build date: Nov 23 2026)"},
        {[&] { ktab.fail.lookup = ENOENT; }, false,
         "Group host/zol/kelpod/tessard-plugins was not found: No such file or directory"},
        {[&] { ktab.fail.children = EACCES; }, false, cannotCheck + ": Permission denied"},
        {[&] { ktab.fail.addInt = ENOMEM; }, false, cannotCheck + ": Cannot allocate memory"},
        {[&] { ktab.fail.outOfMemory = true; }, false,
         "Group host/zol/kelpod/tessard-plugins was not found: Out of memory"},
        {[&] { processes.fail.launch = EACCES; }, false, "Plugin launch failed: Permission denied"},
        {[&] { processes.fail.exitAtOnce = true; }, true,
         "Plugin launched but failed to run: No such process"},
        // Statistics failures are logged but never stop a launch.
        {[&] { ktab.fail.stats = EIO; }, true,
         "Failed to retrieve memory statistics of the tessard-plugins group: Input/output error"},
        // The fixture's figures, in MB rounded up.
        {[] {}, true,
         "Peak requested reservation (MB): 2, Peak requested reservation of children groups "
         "(MB): 1"},
        // The run of the batch before.
        {[&] { processes.fail.stop = EPERM; }, true, "Could not kill 1006: 1"},
    };
    for (const Fault& row : faults) {
        scheduler.RunUntil((at += 300) - 1);
        row.fault();
        size_t launches = processes.launches.size();
        scheduler.RunUntil(at);
        EXPECT_EQ(processes.launches.size() > launches, row.launches) << row.line;
        EXPECT_TRUE(log.Has(row.line)) << row.line;
        ktab.fail = {};
        processes.fail = {};
    }
    EXPECT_TRUE(log.Has(LogLevel::Error, "Plugin fast0 could not be launched: Permission denied"));
    EXPECT_TRUE(std::ranges::any_of(seen, [](const auto& outcome) {
        return outcome.end == PluginEnd::LaunchFailed && outcome.status == EACCES;
    }));
}

}  // namespace
