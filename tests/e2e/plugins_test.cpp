// Plugins launched by the real daemon into a real memory cgroup.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/test_cgroup.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using TessardTest::DaemonOptions;
using TessardTest::DaemonProcess;
using TessardTest::TestCgroup;

constexpr const char* kPool = "host/zol/kelpod/tessard-plugins";
constexpr const char* kBinDir = "/usr/lib/tolmar/tessard/plugins/bin/";
constexpr const char* kConfigDir = "/usr/lib/tolmar/tessard/plugins/config/";

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Installs the probe program under `name` and describes it.
void InstallPlugin(const std::string& root, const std::string& name, const std::string& frequency) {
    fs::create_directories(root + kBinDir + name + ".out");
    fs::copy_file(TESSARD_PLUGIN_PROBE, root + kBinDir + name,
                  fs::copy_options::overwrite_existing);
    TessardTest::WriteFile(root + kConfigDir + name + ".json",
                           R"({"path": ")" + name + R"(", "frequency": ")" + frequency + R"("})");
}

TEST(PluginsE2E, RunInsideThePoolAndReportBack) {
    TestCgroup cgroup(TESSARD_POOL_SCRIPT);
    if (!cgroup.SkipReason().empty()) GTEST_SKIP() << cgroup.SkipReason();

    DaemonOptions options;
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=" + cgroup.Root()};
    options.prepare = [](const std::string& root) {
        InstallPlugin(root, "probe", "fast");
        InstallPlugin(root, "hog", "slow");
        InstallPlugin(root, "sleeper", "slow");
        TessardTest::WriteFile(root + kBinDir + "reporter.sh",
                               "#!/bin/sh\nexec /usr/bin/curl -s -o /dev/null -H "
                               "'Content-Type: application/json' --data '{\"from\":\"reporter\"}' "
                               "\"$3/reporter\"\n");
        fs::permissions(root + kBinDir + "reporter.sh", fs::perms::owner_all);
        TessardTest::WriteFile(root + kConfigDir + "reporter", R"({"path": "reporter.sh"})");
        TessardTest::WriteFile(root + kConfigDir + "missing", R"({"path": "missing.sh"})");
    };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::string bin = daemon.Root() + kBinDir;

    // Fast batches fire 1 s apart from 1 s on; the slow batch at 2 s, again at 12 s.
    ASSERT_TRUE(daemon.WaitForLog("Plugin launch failed: No such file or directory", 10s))
        << daemon.Logs();
    // The sleeper of the first slow batch is stopped when that batch fires again.
    for (int i = 0; i < 100 && Lines(bin + "sleeper.out/pids").empty(); ++i) {
        std::this_thread::sleep_for(100ms);
    }
    ASSERT_FALSE(Lines(bin + "sleeper.out/pids").empty()) << daemon.Logs();
    std::string firstSleeper = Lines(bin + "sleeper.out/pids").at(0);
    ASSERT_TRUE(daemon.HasLine("info", "PluginLauncher", firstSleeper + " killed", 20s));
    std::this_thread::sleep_for(1s);

    // The reporter runs in every third fast batch: its newest report, whichever slot.
    EXPECT_EQ(TessardTest::ReadFile(daemon.ReportDir() + "/reporter.json"),
              R"({"from":"reporter"})");

    EXPECT_EQ(Lines(bin + "probe.out/argv"),
              (std::vector<std::string>{bin + "probe", "++group=tessard-plugins,mem=40", "-u",
                                        "http://localhost:" + std::to_string(daemon.Port())}));
    EXPECT_TRUE(Lines(bin + "probe.out/env").empty()) << "the environment is empty";
    EXPECT_EQ(Lines(bin + "probe.out/fds"), (std::vector<std::string>{"0", "1", "2"}));
    std::string groupPrefix = cgroup.ProcPath() + "/" + kPool + "/";
    bool inPool = false;
    for (const auto& line : Lines(bin + "probe.out/cgroup")) {
        inPool |= line.find(":memory:" + groupPrefix) != std::string::npos;
    }
    EXPECT_TRUE(inPool) << "probe ran outside " << groupPrefix;

    // The hog was killed inside its group; the daemon and the others went on.
    EXPECT_FALSE(fs::exists(bin + "hog.out/survived"));
    EXPECT_GE(Lines(bin + "hog.out/pids").size(), 1u);
    EXPECT_TRUE(daemon.Running());
    EXPECT_TRUE(daemon.WaitForLog("Launching binary: " + bin + "probe", 1s));

    // It got exactly one SIGTERM, and kept running: nothing more was sent.
    EXPECT_EQ(Lines(bin + "sleeper.out/terms").size(), 1u);
    EXPECT_EQ(::kill(std::stoi(firstSleeper), 0), 0);
    EXPECT_TRUE(daemon.HasLine("info", "PluginLauncher",
                               "Number of fast plugins: 3, Throttle timeout: 30, Min period: 90"));
    EXPECT_EQ(daemon.Terminate(), 0);
}

TEST(PluginsE2E, NothingLaunchesWithoutThePool) {
    TestCgroup cgroup;
    if (!cgroup.SkipReason().empty()) GTEST_SKIP() << cgroup.SkipReason();

    DaemonOptions options;
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=" + cgroup.Root()};
    options.prepare = [](const std::string& root) { InstallPlugin(root, "probe", "fast"); };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::string bin = daemon.Root() + kBinDir;
    EXPECT_TRUE(daemon.HasLine(
        "error", "PluginLauncher",
        std::string("Group ") + kPool + " was not found: No such file or directory", 5s));
    EXPECT_TRUE(daemon.HasLine("error", "PluginLauncher",
                               "Failed resource pool prechecks; cannot launch plugin: " + bin +
                                   "probe ++group=tessard-plugins,mem=40 -u http://localhost:" +
                                   std::to_string(daemon.Port()) + " "));
    EXPECT_FALSE(fs::exists(bin + "probe.out/pids"));
    EXPECT_EQ(daemon.CountLines("info", "PluginLauncher",
                                "Launching binary: " + bin +
                                    "probe ++group=tessard-plugins,mem=40 -u http://localhost:" +
                                    std::to_string(daemon.Port()) + " "),
              0);
    EXPECT_EQ(daemon.Terminate(), 0);
}

TEST(PluginsE2E, BadTimeScaleStopsStartUp) {
    DaemonOptions options;
    options.env = {"TESSARD_TIME_SCALE=0"};
    options.waitReady = false;
    DaemonProcess daemon(options);
    EXPECT_EQ(daemon.WaitExit(10s), 1);
    EXPECT_NE(daemon.Logs().find("Initializing Pelinor failed: TESSARD_TIME_SCALE"),
              std::string::npos)
        << daemon.Logs();
}

}  // namespace
