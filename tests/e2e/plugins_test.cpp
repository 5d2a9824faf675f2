// Plugins launched by the real daemon into a real memory cgroup.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/support/daemon_process.h"
#include "tests/support/test_cgroup.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using TessardTest::DaemonOptions;
using TessardTest::DaemonProcess;
using TessardTest::Eventually;
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

// Installs a shell plugin, a fast one; it starts with an empty environment.
void InstallScript(const std::string& root, const std::string& name, const std::string& body) {
    TessardTest::WriteFile(root + kBinDir + name + ".sh", "#!/bin/sh\n" + body);
    fs::permissions(root + kBinDir + name + ".sh", fs::perms::owner_all);
    TessardTest::WriteFile(root + kConfigDir + name, R"({"path": ")" + name + R"(.sh"})");
}

// A zombie is as good as gone: the host's init may be slow to reap orphans.
bool Alive(const std::string& pid) {
    std::string stat;
    std::getline(std::ifstream("/proc/" + pid + "/stat"), stat);
    size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z';
}

// The processes in the pool's plugin groups, and the groups.
std::pair<int, int> PoolContents(const std::string& pool) {
    int processes = 0, groups = 0;
    for (const auto& entry : fs::directory_iterator(pool)) {
        if (!entry.is_directory()) continue;
        ++groups;
        processes += static_cast<int>(Lines(entry.path() / "cgroup.procs").size());
    }
    return {processes, groups};
}

TEST(PluginsE2E, RunInsideThePoolReportBackAndAreStoppedWhole) {
    TestCgroup cgroup(TESSARD_POOL_SCRIPT);
    if (!cgroup.SkipReason().empty()) GTEST_SKIP() << cgroup.SkipReason();

    DaemonOptions options;
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=" + cgroup.Root()};
    options.extraConfig = "<log><level>verbose</level></log>";
    options.prepare = [](const std::string& root) {
        InstallPlugin(root, "probe", "fast");
        InstallPlugin(root, "hog", "slow");
        InstallPlugin(root, "sleeper", "slow");
        InstallScript(root, "reporter",
                      "exec /usr/bin/curl -s -o /dev/null -H 'Content-Type: application/json' "
                      "--data '{\"from\":\"reporter\"}' \"$3/reporter\"\n");
        TessardTest::WriteFile(root + kConfigDir + "missing", R"({"path": "missing.sh"})");
        // Twenty children and a double-forked daemon in a session of its own, then exit 3.
        InstallScript(root, "litter",
                      "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do\n"
                      "  /bin/sleep 300 & echo $! >>\"$0.pids\"\ndone\n"
                      "(/usr/bin/setsid /bin/sh -c 'echo $$ >>\"$0.pids\"; exec /bin/sleep 300' "
                      "\"$0\" &)\n/bin/sleep 0.2\nexit 3\n");
        InstallScript(root, "chatty", "echo hello\necho oops >&2\n/usr/bin/seq 1 300000\n");
    };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::string bin = daemon.Root() + kBinDir;
    std::string pool = cgroup.Root() + "/" + kPool;
    const std::string launcher = "PluginLauncher";

    // Fast batches fire 1 s apart from 1 s on, the slow batch at 2 s and again at 12 s.
    EXPECT_TRUE(
        daemon.HasLine("error", launcher, "Plugin launch failed: No such file or directory", 10s));
    EXPECT_TRUE(daemon.HasLine("error", launcher,
                               "Plugin missing could not be launched: No such file or directory"));

    // What the litter left is stopped at its category's next batch, one second later.
    ASSERT_TRUE(daemon.WaitForLog("Plugin litter exited with status 3 (ran ", 10s))
        << daemon.Logs();
    EXPECT_TRUE(
        daemon.HasLine("warning", launcher, "litter: stopping 21 processes it left behind"));
    auto litter = Lines(bin + "litter.sh.pids");
    EXPECT_EQ(litter.size(), 21u);
    EXPECT_TRUE(Eventually([&] { return std::none_of(litter.begin(), litter.end(), Alive); }, 10s))
        << "left behind by the litter";

    // The hog dies inside its own cap, and the log says so by name.
    EXPECT_TRUE(daemon.WaitForLog(
        "Plugin hog was killed by the kernel: out of memory (limit 40 MB) (ran ", 10s))
        << daemon.Logs();
    EXPECT_FALSE(fs::exists(bin + "hog.out/survived"));

    // The chatty plugin's lines reach the log under its name, up to the cap; it is not held up.
    EXPECT_TRUE(daemon.HasLine("verbose", launcher, "chatty: hello", 10s));
    EXPECT_TRUE(daemon.HasLine("warning", launcher, "chatty: oops"));
    EXPECT_TRUE(daemon.HasLine("warning", launcher, "chatty: output truncated at 65536 bytes"));
    EXPECT_TRUE(daemon.WaitForLog("Plugin chatty exited with status 0 (ran ", 10s));
    int chattyLines = 0;
    for (const auto& e : daemon.LogEntries()) chattyLines += e.message.starts_with("chatty: ");
    EXPECT_LT(chattyLines, 65536 / 2);
    EXPECT_EQ(TessardTest::PostStatus(daemon.Port(), "/after-chatty", "{}"), 200);

    // The sleeper traps SIGTERM: killed when the grace after its next batch is over.
    ASSERT_TRUE(Eventually([&] { return !Lines(bin + "sleeper.out/pids").empty(); }, 10s));
    std::string firstSleeper = Lines(bin + "sleeper.out/pids").at(0);
    ASSERT_TRUE(daemon.HasLine("info", launcher, firstSleeper + " killed", 20s));
    EXPECT_TRUE(daemon.WaitForLog(
        "Plugin sleeper was stopped at its next batch: killed after ignoring SIGTERM (ran ", 8s))
        << daemon.Logs();
    EXPECT_FALSE(Alive(firstSleeper));
    EXPECT_EQ(Lines(bin + "sleeper.out/terms").size(), 1u);

    // The reporter runs in every fifth fast batch: its newest report, whichever slot.
    EXPECT_EQ(TessardTest::ReadFile(daemon.ReportDir() + "/reporter.json"),
              R"({"from":"reporter"})");
    EXPECT_EQ(Lines(bin + "probe.out/argv"),
              (std::vector<std::string>{bin + "probe", "++group=tessard-plugins,mem=40", "-u",
                                        "http://localhost:" + std::to_string(daemon.Port())}));
    EXPECT_TRUE(Lines(bin + "probe.out/env").empty()) << "the environment is empty";
    EXPECT_EQ(Lines(bin + "probe.out/fds"), (std::vector<std::string>{"0", "1", "2"}));
    std::string groupPrefix = cgroup.ProcPath() + "/" + kPool + "/";
    bool inPool = false;
    bool pidsCapped = !fs::exists("/sys/fs/cgroup/pids/cgroup.procs");  // or no pids hierarchy
    for (const auto& line : Lines(bin + "probe.out/cgroup")) {
        inPool |= line.find(":memory:" + groupPrefix) != std::string::npos;
        pidsCapped |= line.find(":pids:" + groupPrefix) != std::string::npos;
    }
    EXPECT_TRUE(inPool) << "probe ran outside " << groupPrefix;
    EXPECT_TRUE(pidsCapped) << "probe ran outside the pool's pids counterpart";
    EXPECT_TRUE(daemon.HasLine("info", launcher,
                               "Number of fast plugins: 5, Throttle timeout: 30, Min period: 150"));

    // The daemon's stop takes every plugin's group with it, the second sleeper's included.
    ASSERT_TRUE(Eventually([&] { return PoolContents(pool).first > 0; }, 10s));
    EXPECT_EQ(daemon.Terminate(), 0);
    EXPECT_EQ(PoolContents(pool), std::make_pair(0, 0));
}

}  // namespace
