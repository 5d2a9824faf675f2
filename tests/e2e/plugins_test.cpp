// Plugins launched by the real daemon into a real memory cgroup.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/support/daemon_process.h"
#include "tests/support/test_cgroup.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace TessardTest;

constexpr const char* kPool = "host/zol/kelpod/tessard-plugins";
constexpr const char* kBinDir = "/usr/lib/tolmar/tessard/plugins/bin/";

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Installs the probe program under `name`, or a shell script with `body` (which starts with an
// empty environment), and describes it.
void Install(const std::string& root, const std::string& name, const std::string& frequency,
             const std::string& body = {}) {
    std::string file = root + kBinDir + name;
    if (body.empty()) {
        fs::create_directories(file + ".out");
        fs::permissions(file + ".out", fs::perms::all);  // the plugins' user writes there
        fs::copy_file(TESSARD_PLUGIN_PROBE, file);
    } else {
        WriteFile(file, "#!/bin/sh\n" + body);
        fs::permissions(file, fs::perms(0755));
    }
    WriteFile(root + "/usr/lib/tolmar/tessard/plugins/config/" + name,
              R"({"path": ")" + name + R"(", "frequency": ")" + frequency + R"("})");
}

// A zombie is as good as gone: the host's init may be slow to reap orphans.
bool Alive(const std::string& pid) {
    std::string stat;
    std::getline(std::ifstream("/proc/" + pid + "/stat"), stat);
    size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z';
}

TEST(PluginsE2E, RunInsideThePoolReportBackAndAreStoppedWhole) {
    TestCgroup cgroup(TESSARD_POOL_SCRIPT);
    if (!cgroup.SkipReason().empty()) GTEST_SKIP() << cgroup.SkipReason();

    DaemonOptions options;
    options.env = {"TESSARD_TIME_SCALE=30", "TESSARD_CGROUP_ROOT=" + cgroup.Root()};
    // The reporter is let in as the plugins' user, whom the writers need not name.
    options.extraConfig =
        "<log><level>verbose</level></log><plugins><user>nobody</user></plugins>"
        "<access><writers>root</writers></access>";
    options.prepare = [](const std::string& root) {
        Install(root, "probe", "fast");
        Install(root, "hog", "slow");
        Install(root, "sleeper", "slow");
        // Reports, then waits for its next batch to stop it.
        Install(root, "reporter", "fast",
                "/usr/bin/curl -s -o /dev/null -H 'Content-Type: application/json' "
                "--data '{\"from\":\"reporter\"}' \"$3/reporter\"\nexec /bin/sleep 300\n");
        // Twenty children and a double-forked daemon in a session of its own, then exit 3.
        Install(root, "litter", "fast",
                "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do\n"
                "  /bin/sleep 300 & echo $! >>\"$0.pids\"\ndone\n"
                "(/usr/bin/setsid /bin/sh -c 'echo $$ >>\"$0.pids\"; exec /bin/sleep 300' "
                "\"$0\" &)\n/bin/sleep 0.2\nexit 3\n");
        Install(root, "chatty", "fast", "echo hello\necho oops >&2\n/usr/bin/seq 1 300000\n");
        // Anyone could change it: it never runs.
        Install(root, "writable", "fast", "exit 0\n");
        fs::permissions(root + kBinDir + "writable", fs::perms::others_write,
                        fs::perm_options::add);
    };
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    std::string bin = daemon.Root() + kBinDir;
    const std::string launcher = "PluginLauncher";

    // Fast batches fire 1 s apart from 1 s on, the slow batch at 2 s and again at 12 s.
    // What the litter left is stopped at its category's next batch, one second later.
    ASSERT_TRUE(daemon.WaitForLog("Plugin litter exited with status 3 (ran ", 10s))
        << daemon.Logs();
    EXPECT_TRUE(
        daemon.HasLine("warning", launcher, "litter: stopping 21 processes it left behind"));
    auto litter = Lines(bin + "litter.pids");
    EXPECT_TRUE(Eventually([&] { return std::none_of(litter.begin(), litter.end(), Alive); }, 10s))
        << "left behind by the litter";

    // The hog dies inside its own cap, and the log says so by name.
    EXPECT_TRUE(daemon.WaitForLog(
        "Plugin hog was killed by the kernel: out of memory (limit 40 MB) (ran ", 10s))
        << daemon.Logs();

    // The chatty plugin's lines reach the log under its name, up to the cap; it is not held up.
    EXPECT_TRUE(daemon.HasLine("verbose", launcher, "chatty: hello", 10s));
    EXPECT_TRUE(daemon.HasLine("warning", launcher, "chatty: oops"));
    EXPECT_TRUE(daemon.HasLine("warning", launcher, "chatty: output truncated at 65536 bytes"));
    EXPECT_TRUE(daemon.WaitForLog("Plugin chatty exited with status 0 (ran ", 10s));
    const std::string logs = daemon.Logs();
    int chattyLines = 0;
    for (size_t at = 0; (at = logs.find(" PluginLauncher: chatty: ", at + 1)) != logs.npos;)
        ++chattyLines;
    EXPECT_LT(chattyLines, 65536 / 2);

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
    EXPECT_TRUE(daemon.WaitForLog("Plugin reporter was stopped at its next batch (ran ", 10s));
    EXPECT_EQ(ReadFile(daemon.ReportDir() + "/reporter.json"), R"({"from":"reporter"})");
    EXPECT_EQ(daemon.Logs().find("peak memory 0 KB"), std::string::npos) << "every run is charged";
    EXPECT_TRUE(Lines(bin + "probe.out/env").empty()) << "the environment is empty";
    EXPECT_EQ(Lines(bin + "probe.out/fds"), (std::vector<std::string>{"0", "1", "2"}));
    EXPECT_EQ(Lines(bin + "probe.out/limit"), std::vector<std::string>{"41943040"});
    // As nobody: no other group, no capability, and none to regain through execve.
    std::string status = ReadFile(bin + "probe.out/status");
    for (const char* line :
         {"\nUid:\t65534\t65534\t65534\t65534\nGid:\t65534\t65534\t65534\t65534\n",
          "\nGroups:\t \n", "\nCapPrm:\t0000000000000000\nCapEff:\t0000000000000000\n",
          "\nCapAmb:\t0000000000000000\n", "\nNoNewPrivs:\t1\n"})
        EXPECT_NE(status.find(line), std::string::npos) << line << status;
    // No signal left blocked or ignored by the daemon, but glibc's own two (32 and 33), which
    // glibc keeps anyone from changing.
    auto mask = [&](const std::string& key) {
        return std::stoull(status.substr(status.find("\n" + key + ":\t") + key.size() + 3, 16),
                           nullptr, 16);
    };
    EXPECT_EQ((mask("SigBlk") | mask("SigIgn")) & ~(3ull << 31), 0u) << status;
    EXPECT_TRUE(daemon.HasLine(
        "error", launcher,
        "Plugin writable could not be launched: " + bin + "writable is writable by everyone"));
    // In the pool, and in its pids counterpart where the host has a v1 pids hierarchy.
    std::string groups = ReadFile(bin + "probe.out/cgroup");
    std::string prefix = cgroup.Root().substr(std::strlen("/sys/fs/cgroup/memory")) + "/" + kPool;
    EXPECT_NE(groups.find(":memory:" + prefix + "/run-"), std::string::npos) << groups;
    if (fs::exists("/sys/fs/cgroup/pids/cgroup.procs")) {
        EXPECT_NE(groups.find(":pids:" + prefix + "/run-"), std::string::npos) << groups;
    }

    // The daemon's stop takes every plugin's group with it, the second sleeper's included.
    ASSERT_TRUE(Eventually([&] { return Lines(bin + "sleeper.out/pids").size() > 1; }, 10s));
    EXPECT_EQ(daemon.Terminate(), 0);
    std::string pool = cgroup.Root() + "/" + kPool;
    EXPECT_TRUE(std::none_of(fs::directory_iterator(pool), fs::directory_iterator(),
                             [](const fs::directory_entry& e) { return e.is_directory(); }));
}

}  // namespace
