// The kernel-information interface and the process launcher against real cgroups: each
// test builds <memory hierarchy>/tessard-test-<pid>/host/zol/kelpod/tessard-plugins,
// points $TESSARD_CGROUP_ROOT at it, and takes it all down afterwards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/ktab.h"
#include "platform/process.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Pelinor::System::ProcessLauncher;
using TessardTest::ReadFile;
using TessardTest::TempDir;
using TessardTest::WriteFile;
namespace Ktab = Pelinor::Ktab;

constexpr const char* kPoolPath = "host/zol/kelpod/tessard-plugins";

// Polls until `done` holds; the limit is only reached when something is broken.
bool WaitUntil(const std::function<bool()>& done) {
    for (auto deadline = std::chrono::steady_clock::now() + 30s;
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(10ms)) {
        if (done()) return true;
    }
    return done();
}

std::string Trimmed(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

uint64_t ReadNumber(const std::string& path) {
    return std::stoull(ReadFile(path));
}

uint64_t InodeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// The value of a "key value" line of a statistics file, or -1.
int64_t Counter(const std::string& text, const std::string& key) {
    std::istringstream lines(text);
    std::string word;
    int64_t value = -1;
    while (lines >> word >> value) {
        if (word == key) return value;
    }
    return -1;
}

std::vector<std::string> ChildGroups(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.is_directory()) names.push_back(entry.path().filename());
    }
    return names;
}

// Kills what runs in a group tree (only processes the test started can be there) and
// removes it, deepest first.
void RemoveGroupTree(const std::string& dir) {
    if (!fs::is_directory(dir)) return;
    for (const auto& child : ChildGroups(dir)) RemoveGroupTree(dir + "/" + child);
    WaitUntil([&] {
        std::istringstream procs(ReadFile(dir + "/cgroup.procs"));
        bool empty = true;
        for (pid_t pid; procs >> pid; empty = false) ::kill(pid, SIGKILL);
        return empty;
    });
    ::rmdir(dir.c_str());
}

// The machine's memory-capable hierarchy, as the daemon would find it.
bool SystemHierarchy(std::string& path, bool& v2) {
    v2 = fs::exists("/sys/fs/cgroup/cgroup.controllers");
    path = v2 ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
    if (!v2) return fs::exists(path + "/memory.limit_in_bytes");
    return ReadFile(path + "/cgroup.subtree_control").find("memory") != std::string::npos;
}

class CgroupTree : public testing::Test {
  protected:
    void SetUp() override {
        if (!SystemHierarchy(hierarchy, v2)) GTEST_SKIP() << "no cgroup memory hierarchy";
        name = "tessard-test-" + std::to_string(::getpid());
        root = hierarchy + "/" + name;
        if (::mkdir(root.c_str(), 0755) != 0) {
            GTEST_SKIP() << "cannot create a cgroup in " << hierarchy << ": "
                         << std::strerror(errno);
        }
        if (const char* old = std::getenv("TESSARD_CGROUP_ROOT")) savedRoot = old;
        ::setenv("TESSARD_CGROUP_ROOT", root.c_str(), 1);
        if (makePool) MakeGroups(kPoolPath);
        pool = root + "/" + kPoolPath;
    }

    void TearDown() override {
        if (savedRoot.empty()) {
            ::unsetenv("TESSARD_CGROUP_ROOT");
        } else {
            ::setenv("TESSARD_CGROUP_ROOT", savedRoot.c_str(), 1);
        }
        if (!root.empty()) RemoveGroupTree(root);
    }

    // Makes the groups along `path` below the root; on v2 each hands memory to its children.
    void MakeGroups(const std::string& path) {
        std::string dir = root;
        for (size_t start = 0; start < path.size();) {
            if (v2) WriteFile(dir + "/cgroup.subtree_control", "+memory");
            size_t end = std::min(path.find('/', start), path.size());
            dir += "/" + path.substr(start, end - start);
            ASSERT_TRUE(fs::create_directory(dir) || fs::is_directory(dir)) << dir;
            start = end + 1;
        }
        if (v2) WriteFile(dir + "/cgroup.subtree_control", "+memory");
    }

    std::string PeakFile() const { return v2 ? "memory.peak" : "memory.max_usage_in_bytes"; }
    std::string LimitFile() const { return v2 ? "memory.max" : "memory.limit_in_bytes"; }

    bool makePool = true;
    bool v2 = false;
    std::string hierarchy, name, root, pool, savedRoot;
};

// Group ids, child lists and memory records, through the interface as the daemon uses it.
class CgroupKtab : public CgroupTree {
  protected:
    void TearDown() override {
        for (auto* list : lists) ktab.ParamListDestroy(list);
        CgroupTree::TearDown();
    }
    Ktab::ParamList* Params(const char* text) {
        lists.push_back(ktab.ParamListCreate(0, 1));
        EXPECT_EQ(ktab.ParamListAddString(lists.back(), text), 0u);
        return lists.back();
    }
    Ktab::ParamList* Params(uint64_t id) {
        lists.push_back(ktab.ParamListCreate(0, 1));
        EXPECT_EQ(ktab.ParamListAddInt(lists.back(), id), 0u);
        return lists.back();
    }
    Ktab::Status IdOf(const char* path, uint64_t& id) {
        return ktab.Set(Ktab::Node::sched_groupPathNameToID, nullptr, Params(path), &id, 8);
    }
    // The number of child groups, or -(status).
    int64_t Children(uint64_t id) {
        Ktab::ParamList* out = nullptr;
        Ktab::Status status =
            ktab.GetInstanceListAlloc(Ktab::Node::sched_groups_members_groups, Params(id), &out);
        int64_t count = status == 0 ? ktab.ParamListNumInstances(out) : -int64_t{status};
        ktab.ParamListDestroy(out);
        return count;
    }

    Ktab::Interface& ktab = *Ktab::Interface::sInstance;
    std::vector<Ktab::ParamList*> lists;
};

TEST_F(CgroupKtab, AnswersGroupIdsAndChildrenFromTheHierarchy) {
    char date[21];
    const char* myDate = nullptr;
    EXPECT_EQ(ktab.CheckSig(date, sizeof date, &myDate), 0);
    ::setenv("TESSARD_CGROUP_ROOT", "/nonexistent/cgroup", 1);
    EXPECT_NE(ktab.CheckSig(date, sizeof date, &myDate), 0);
    std::string release = Trimmed(ReadFile("/proc/sys/kernel/osrelease"));
    EXPECT_EQ(date, release.substr(0, 20));
    ASSERT_NE(myDate, nullptr);
    EXPECT_NE(std::strlen(myDate), 0u);
    char small[5];
    EXPECT_NE(ktab.CheckSig(small, sizeof small, &myDate), 0);
    EXPECT_EQ(small, release.substr(0, 4));
    uint64_t id = 0;
    EXPECT_EQ(IdOf(kPoolPath, id), static_cast<Ktab::Status>(ENOENT));

    // The hierarchy is also found as the memory/ child (v1) or the root itself (v2).
    ::setenv("TESSARD_CGROUP_ROOT", "/sys/fs/cgroup/", 1);
    ASSERT_EQ(IdOf((name + "/" + kPoolPath).c_str(), id), 0u);
    EXPECT_EQ(id, InodeOf(pool));
    ::setenv("TESSARD_CGROUP_ROOT", root.c_str(), 1);
    uint64_t again = 0;
    ASSERT_EQ(IdOf((std::string("/") + kPoolPath).c_str(), again), 0u);
    EXPECT_EQ(again, id);

    EXPECT_EQ(IdOf("host/nothing", again), static_cast<Ktab::Status>(ENOENT));
    EXPECT_EQ(IdOf("host/cgroup.procs", again), static_cast<Ktab::Status>(ENOTDIR));
    EXPECT_EQ(IdOf("host/../host", again), static_cast<Ktab::Status>(EINVAL));
    using Node = Ktab::Node;
    EXPECT_EQ(ktab.Set(Node::sched_groups_members_groups, nullptr, Params(kPoolPath), &again, 8),
              static_cast<Ktab::Status>(EINVAL));
    EXPECT_EQ(ktab.Set(Node::sched_groupPathNameToID, nullptr, Params(kPoolPath), &again, 4),
              static_cast<Ktab::Status>(EINVAL));
    EXPECT_EQ(ktab.Set(Node::sched_groupPathNameToID, nullptr, nullptr, &again, 8),
              static_cast<Ktab::Status>(EINVAL));
    EXPECT_EQ(ktab.Set(Node::sched_groupPathNameToID, nullptr, Params(id), &again, 8),
              static_cast<Ktab::Status>(EINVAL));

    EXPECT_EQ(Children(id), 0);
    MakeGroups(std::string(kPoolPath) + "/a");
    MakeGroups(std::string(kPoolPath) + "/b");
    EXPECT_EQ(Children(id), 2);
    Ktab::ParamList* out = Params(id);  // overwritten with nullptr on failure
    EXPECT_EQ(ktab.GetInstanceListAlloc(Node::sched_groups_stats_memoryStats, Params(id), &out),
              static_cast<Ktab::Status>(EINVAL));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(Children(12345), -ENOENT) << "an id never handed out";

    // An id dies with its directory, even when a group of the same name comes back.
    uint64_t idOfA = 0;
    ASSERT_EQ(IdOf((std::string(kPoolPath) + "/a").c_str(), idOfA), 0u);
    EXPECT_EQ(Children(idOfA), 0);
    ASSERT_EQ(::rmdir((pool + "/a").c_str()), 0);
    EXPECT_EQ(Children(idOfA), -ENOENT);
    MakeGroups(std::string(kPoolPath) + "/a");
    EXPECT_EQ(Children(idOfA), -ENOENT);

    EXPECT_EQ(Ktab::ReturnStatusToString(ENOENT), "No such file or directory");
    EXPECT_EQ(Ktab::ReturnStatusToString(Ktab::kOutOfMemory), "Out of memory");
    EXPECT_EQ(Ktab::ReturnStatusToString(0x12345678), "Unknown status 0x12345678");
}

// The plugin's view of its start, recorded by the plugin itself. Python, because a shell
// resets its signal mask and SIGCHLD as it starts and would hide what it inherited.
constexpr const char* kRecorder = R"(#!/usr/bin/python3
import os, signal, sys, time
def put(name, text, mode='w'):
    with open(os.path.join(os.path.dirname(sys.argv[0]), name), mode) as f:
        f.write(text)
put('fds', ' '.join(sorted(os.listdir('/proc/self/fd'), key=int)))  # 3: the listing
put('argv', '\n'.join(sys.argv))
put('environ', str(len(open('/proc/self/environ', 'rb').read())))
put('cgroup', open('/proc/self/cgroup').read())
put('signals', ''.join(l for l in open('/proc/self/status') if l.startswith(('SigBlk', 'SigIgn'))))
def term(*_):
    put('terms', 'term\n', 'a')
    sys.exit(0)
signal.signal(signal.SIGTERM, term)
put('ready', '')
while True:
    time.sleep(0.05)
)";
constexpr const char* kPython = "/usr/bin/python3";
// Python ignores these two itself.
constexpr uint64_t kPythonIgnores = 1u << (SIGPIPE - 1) | 1u << (SIGXFSZ - 1);

// As the daemon runs: SIGTERM and SIGINT blocked in every thread, SIGCHLD ignored.
class DaemonSignals {
  public:
    DaemonSignals() {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTERM);
        sigaddset(&stop, SIGINT);
        pthread_sigmask(SIG_BLOCK, &stop, &previousMask);
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGCHLD, &ignore, &previousChild);
    }
    ~DaemonSignals() {
        sigaction(SIGCHLD, &previousChild, nullptr);
        pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    }

  private:
    sigset_t previousMask;
    struct sigaction previousChild;
};

// A descriptor the daemon might hold without close-on-exec.
class InheritableFile {
  public:
    InheritableFile() : fd(::open("/dev/null", O_RDONLY)) {}
    ~InheritableFile() { ::close(fd); }

  private:
    int fd;
};

class ProcessLauncherTest : public CgroupKtab {
  protected:
    ProcessLauncher& launcher = *ProcessLauncher::sInstance;
    TempDir temp;

    // The record: zeros but for the two peaks, checked against the control files.
    void ExpectStats(const std::string& child) {
        uint64_t id = 0;
        ASSERT_EQ(IdOf(kPoolPath, id), 0u);
        std::vector<uint8_t> record(Ktab::kMemoryStatsSize, 0xa5);
        ASSERT_EQ(ktab.Get(Ktab::Node::sched_groups_stats_memoryStats, Params(id), record.data(),
                           record.size()),
                  0u);
        auto at = [&](size_t offset) {
            uint64_t value = 0;
            for (int i = 7; i >= 0; --i) value = value << 8 | record[offset + i];
            return value;
        };
        uint64_t childKb = ReadNumber(pool + "/" + child + "/" + PeakFile()) / 1024;
        EXPECT_GT(childKb, 0u);
        EXPECT_EQ(at(Ktab::kPeakReservationOffset), ReadNumber(pool + "/" + PeakFile()) / 1024);
        EXPECT_EQ(at(Ktab::kChildrenPeakReservationOffset), childKb);
        for (size_t i = 0; i < record.size(); ++i) {
            if (i < Ktab::kPeakReservationOffset || (i >= Ktab::kPeakReservationOffset + 8 &&
                                                     i < Ktab::kChildrenPeakReservationOffset)) {
                ASSERT_EQ(record[i], 0) << "byte " << i;
            }
        }
        EXPECT_EQ(ktab.Get(Ktab::Node::sched_groups_stats_memoryStats, Params(id), record.data(),
                           record.size() - 1),
                  static_cast<Ktab::Status>(EINVAL));
    }
};

TEST_F(ProcessLauncherTest, StartsThePluginCleanInsideItsOwnCappedGroup) {
    if (!fs::exists(kPython)) GTEST_SKIP() << kPython << " runs the recording plugin";
    std::string script = temp / "plugin.py";
    WriteFile(script, kRecorder);
    fs::permissions(script, fs::perms::owner_all);
    DaemonSignals daemonSignals;
    InheritableFile leaked;  // the plugin must not see it
    std::string args[] = {script, "one", "two words", "", "++group=tessard-plugins,mem=48"};
    char* argv[] = {args[0].data(), args[1].data(), args[2].data(),
                    args[3].data(), args[4].data(), nullptr};
    int32_t pid = 0;
    ASSERT_EQ(launcher.Launch(script.c_str(), argv, pid), 0);
    ASSERT_TRUE(WaitUntil([&] { return fs::exists(temp / "ready"); }));

    auto groups = ChildGroups(pool);
    ASSERT_EQ(groups.size(), 1u);
    std::string group = pool + "/" + groups[0];
    EXPECT_EQ(ReadFile(temp / "argv"), script + "\none\ntwo words\n\n" + args[4]);
    EXPECT_EQ(ReadFile(temp / "environ"), "0");
    EXPECT_EQ(ReadFile(temp / "fds"), "0 1 2 3");
    std::string member = (v2 ? "0::/" : ":memory:/") + name + "/" + kPoolPath + "/" + groups[0];
    EXPECT_NE(ReadFile(temp / "cgroup").find(member + "\n"), std::string::npos)
        << ReadFile(temp / "cgroup");
    std::istringstream signals(ReadFile(temp / "signals"));
    std::string blockedName, ignoredName;
    uint64_t blocked = 0, ignored = 0;
    signals >> blockedName >> std::hex >> blocked >> ignoredName >> ignored;
    EXPECT_EQ(blockedName + ignoredName, "SigBlk:SigIgn:");
    EXPECT_EQ(blocked, 0u) << "SIGTERM must reach the plugin";
    EXPECT_EQ(ignored & ~kPythonIgnores, 0u) << "SIGCHLD ignored would break the plugin's waits";
    EXPECT_EQ(Trimmed(ReadFile(group + "/" + LimitFile())), std::to_string(48 << 20));

    EXPECT_EQ(launcher.Signal(pid, 0), 0);
    EXPECT_EQ(launcher.Signal(pid, SIGTERM), 0);
    ASSERT_TRUE(WaitUntil([&] { return launcher.Signal(pid, 0) == ESRCH; }));
    EXPECT_EQ(ReadFile(temp / "terms"), "term\n");
    EXPECT_EQ(launcher.Signal(pid, SIGTERM), ESRCH);

    // The group stays, for its peak, until the pid is forgotten, even through a sweep.
    args[0] = temp / "missing";
    argv[0] = args[0].data();
    int32_t other = 0;
    EXPECT_EQ(launcher.Launch(args[0].c_str(), argv, other), ENOENT);
    EXPECT_EQ(ChildGroups(pool), groups);
    ExpectStats(groups[0]);
    launcher.Forget(pid);
    EXPECT_TRUE(ChildGroups(pool).empty());
    EXPECT_EQ(launcher.Signal(pid, 0), ESRCH);
}

TEST_F(ProcessLauncherTest, KernelKillsAPluginPastItsCapAndSparesTheDaemon) {
    if (!fs::exists(kPython)) GTEST_SKIP() << kPython << " is needed to allocate memory";
    std::string marker = temp / "survived";
    std::string args[] = {kPython, "-c",
                          "import sys; b = b'x' * (64 << 20); open(sys.argv[1], 'w').write('!')",
                          marker, "++group=tessard-plugins,mem=32"};
    char* argv[] = {args[0].data(), args[1].data(), args[2].data(),
                    args[3].data(), args[4].data(), nullptr};
    std::string ownGroup = ReadFile("/proc/self/cgroup");
    int32_t pid = 0;
    ASSERT_EQ(launcher.Launch(kPython, argv, pid), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_EQ(ReadFile("/proc/self/cgroup"), ownGroup);
    EXPECT_EQ(launcher.Signal(pid, 0), ESRCH);

    auto groups = ChildGroups(pool);
    ASSERT_EQ(groups.size(), 1u);
    std::string events =
        ReadFile(pool + "/" + groups[0] + (v2 ? "/memory.events" : "/memory.oom_control"));
    EXPECT_GE(Counter(events, "oom_kill"), 1) << events;
    EXPECT_LE(ReadNumber(pool + "/" + groups[0] + "/" + PeakFile()), uint64_t{32} << 20);
    ExpectStats(groups[0]);
    launcher.Forget(pid);
    EXPECT_TRUE(ChildGroups(pool).empty());
}

TEST_F(ProcessLauncherTest, RefusesBadRequestsAndSweepsOnlyDeadGroups) {
    DaemonSignals daemonSignals;  // a failed start is reaped even when SIGCHLD is ignored
    std::string notExecutable = temp / "data";
    WriteFile(notExecutable, "");
    auto launch = [&](const std::string& path, const std::string& request) {
        std::string args[] = {path, request};
        char* argv[] = {args[0].data(), args[1].data(), nullptr};
        int32_t pid = -1;
        int error = launcher.Launch(path.c_str(), argv, pid);
        EXPECT_EQ(pid, -1) << "a failed launch leaves the pid alone";
        return error;
    };
    const std::string good = "++group=tessard-plugins,mem=16";
    for (const char* bad :
         {"", "++group=other,mem=16", "++group=tessard-plugins", "++group=tessard-plugins,mem=0",
          "++group=tessard-plugins,mem=-1", "++group=tessard-plugins,mem=12x",
          "++group=tessard-plugins,mem=", "++group=tessard-plugins,mem=99999999999999"}) {
        EXPECT_EQ(launch("/bin/true", bad), EINVAL) << bad;
    }
    {
        std::string args[] = {"/bin/true", good, good};
        char* argv[] = {args[0].data(), args[1].data(), args[2].data(), nullptr};
        int32_t pid = 0;
        EXPECT_EQ(launcher.Launch("/bin/true", argv, pid), EINVAL) << "two requests";
    }

    // Leftovers: of a daemon that is gone, of one still running (init), and a stranger.
    pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    for (std::string leftover :
         {"run-" + std::to_string(gone) + "-0", std::string("run-1-0"), std::string("other")}) {
        MakeGroups(std::string(kPoolPath) + "/" + leftover);
    }
    EXPECT_EQ(launch(temp / "missing", good), ENOENT);
    EXPECT_EQ(launch(notExecutable, good), EACCES);
    auto groups = ChildGroups(pool);
    std::sort(groups.begin(), groups.end());
    EXPECT_EQ(groups, (std::vector<std::string>{"other", "run-1-0"}))
        << "the dead daemon's group is swept; the failed starts leave nothing";

    MakeGroups("bare");  // a memory group without the pool in it
    ::setenv("TESSARD_CGROUP_ROOT", (root + "/bare").c_str(), 1);
    EXPECT_EQ(launch("/bin/true", good), ENOENT);
    ::setenv("TESSARD_CGROUP_ROOT", temp.Path().c_str(), 1);  // no cgroup at all
    EXPECT_EQ(launch("/bin/true", good), ENOENT);

    EXPECT_EQ(launcher.Signal(::getpid(), 0), ESRCH) << "only its own children";
}

// The pool set-up script, against the test's own cgroup.
class CgroupPoolScript : public CgroupTree {
  protected:
    CgroupPoolScript() { makePool = false; }

    // Runs the script; returns its exit code and its output in `output`.
    int Run(const std::string& arguments, std::string& output) {
        std::string script =
            (fs::path(__FILE__).parent_path() / "../../packaging/tessard-pool.sh").string();
        std::string command = "TESSARD_POOL_STATE_DIR=" + state.Path() + " bash " + script + " " +
                              arguments + " 2>&1";
        output.clear();
        FILE* pipe = ::popen(command.c_str(), "r");
        if (pipe == nullptr) return -1;
        char buffer[256];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
            output.append(buffer, n);
        }
        int status = ::pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    TempDir state;
    TempDir temp;
};

TEST_F(CgroupPoolScript, CreatesReportsAndRemovesOnlyWhatItMade) {
    std::string out;
    std::string at = "--root " + root;
    EXPECT_EQ(Run("status " + at, out), 1) << out;
    MakeGroups("host");  // not the script's: remove must leave it
    ASSERT_EQ(Run("create " + at + " --cap-mb 64", out), 0) << out;
    EXPECT_EQ(Trimmed(ReadFile(pool + "/" + LimitFile())), std::to_string(64 << 20));
    ASSERT_EQ(Run("create " + at + " --cap-mb 128", out), 0) << out;
    EXPECT_EQ(Trimmed(ReadFile(pool + "/" + LimitFile())), std::to_string(128 << 20));
    EXPECT_EQ(Run("status " + at, out), 0) << out;
    EXPECT_NE(out.find(pool), std::string::npos) << out;

    EXPECT_EQ(Run("create " + at + " --cap-mb 0", out), 2) << out;
    EXPECT_EQ(Run("create " + at + " --cap-mb lots", out), 2) << out;
    EXPECT_EQ(Run("resize " + at, out), 2) << out;
    EXPECT_EQ(Run("create --root /nonexistent/cgroup", out), 3) << out;

    // A plugin still running keeps the pool.
    std::string script = temp / "sleeper.sh";
    WriteFile(script, "#!/bin/sh\nexec sleep 60\n");
    fs::permissions(script, fs::perms::owner_all);
    std::string args[] = {script, "++group=tessard-plugins,mem=16"};
    char* argv[] = {args[0].data(), args[1].data(), nullptr};
    int32_t pid = 0;
    ASSERT_EQ(ProcessLauncher::sInstance->Launch(script.c_str(), argv, pid), 0);
    EXPECT_EQ(Run("remove " + at, out), 1) << out;
    EXPECT_TRUE(fs::is_directory(pool));
    EXPECT_EQ(ProcessLauncher::sInstance->Signal(pid, SIGKILL), 0);
    ::waitpid(pid, nullptr, 0);
    MakeGroups(std::string(kPoolPath) + "/idle");  // empty child groups go with the pool

    EXPECT_EQ(Run("remove " + at, out), 0) << out;
    EXPECT_FALSE(fs::exists(root + "/host/zol"));
    EXPECT_TRUE(fs::is_directory(root + "/host"));
    EXPECT_EQ(Run("remove " + at, out), 0) << out;
    ProcessLauncher::sInstance->Forget(pid);
}

}  // namespace
