// The kernel-information interface, the process launcher and the pool script against real
// cgroups, in <memory hierarchy>/tessard-test-<pid>, which $TESSARD_CGROUP_ROOT points at.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/kernel/ktab.h"
#include "platform/kernel/process.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace Ktab = Pelinor::Ktab;
using Ktab::Node;
using TessardTest::ReadFile;

constexpr const char* kRootVariable = "TESSARD_CGROUP_ROOT";
constexpr const char* kPoolPath = "host/zol/kelpod/tessard-plugins";
constexpr const char* kRequest = "++group=tessard-plugins,mem=16";
constexpr Ktab::Status kMissing = ENOENT, kInvalid = EINVAL;

std::vector<std::string> ChildGroups(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.is_directory()) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Removes a group tree deepest first, killing what still runs in it (only the test's own
// processes can be there).
void RemoveGroupTree(const std::string& dir) {
    if (!fs::is_directory(dir)) return;
    for (const auto& child : ChildGroups(dir)) RemoveGroupTree(dir + "/" + child);
    for (int round = 0; ::rmdir(dir.c_str()) != 0 && errno == EBUSY && round < 3000; ++round) {
        std::istringstream procs(ReadFile(dir + "/cgroup.procs"));
        for (pid_t pid; procs >> pid;) ::kill(pid, SIGKILL);
        ::usleep(10'000);
    }
}

class Cgroup : public testing::Test {
  protected:
    void SetUp() override {
        v2 = fs::exists("/sys/fs/cgroup/cgroup.controllers");
        limitFile = v2 ? "memory.max" : "memory.limit_in_bytes";
        peakFile = v2 ? "memory.peak" : "memory.max_usage_in_bytes";
        name = "tessard-test-" + std::to_string(::getpid());
        root = (v2 ? "/sys/fs/cgroup/" : "/sys/fs/cgroup/memory/") + name;
        pool = root + "/" + kPoolPath;
        ::mkdir(root.c_str(), 0755);
        if (!fs::exists(root + "/" + limitFile)) GTEST_SKIP() << "no memory cgroup at " << root;
        if (v2) TessardTest::WriteFile(root + "/cgroup.subtree_control", "+memory");
        ::setenv(kRootVariable, root.c_str(), 1);
    }

    void TearDown() override {
        for (auto* list : lists) ktab.ParamListDestroy(list);
        ::unsetenv(kRootVariable);  // nothing else in this binary reads it
        RemoveGroupTree(root);
    }

    // Makes the groups along `path`; on v2 each hands memory down to its children.
    void MakeGroups(const std::string& path) {
        for (fs::path dir = root; const auto& part : fs::path(path)) {
            fs::create_directory(dir /= part);
            if (v2) TessardTest::WriteFile(dir / "cgroup.subtree_control", "+memory");
        }
    }

    uint64_t Number(const std::string& file) { return std::stoull(ReadFile(file)); }

    // Launches args[0] with `args`; only a launch that succeeds sets `pid`.
    int Launch(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        Pelinor::System::RunOptions options;
        options.name = "test";
        options.logger = Pelinor::Service::Logger::sDefaultLogger;
        options.onEnd = [this](const Pelinor::System::RunEnd& end) {
            std::lock_guard lock(mutex);
            ends.push_back(end);
        };
        return launcher.Launch(argv[0], argv.data(), options, pid);
    }

    // Stops the run and waits until its group is gone; how it ended.
    Pelinor::System::RunEnd StopRun() {
        EXPECT_EQ(launcher.Stop(pid, std::chrono::seconds(2)), 0);
        EXPECT_TRUE(launcher.WaitIdle(std::chrono::seconds(10)));
        std::lock_guard lock(mutex);
        return ends.empty() ? Pelinor::System::RunEnd{} : ends.back();
    }

    // The pool script's exit code; what it prints goes to the test's log. Its root is
    // $TESSARD_CGROUP_ROOT unless `arguments` name another.
    int Pool(const std::string& arguments) {
        std::string script = fs::path(__FILE__).parent_path() / "../../packaging/tessard-pool.sh";
        int status = std::system(
            ("TESSARD_POOL_STATE_DIR=" + temp.Path() + " bash " + script + " " + arguments)
                .c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    Ktab::ParamList* Params(const std::string& path) {
        auto* list = lists.emplace_back(ktab.ParamListCreate(0, 1));
        return ktab.ParamListAddString(list, path.c_str()) == 0 ? list : nullptr;
    }
    Ktab::ParamList* Params(uint64_t id) {
        auto* list = lists.emplace_back(ktab.ParamListCreate(0, 1));
        return ktab.ParamListAddInt(list, id) == 0 ? list : nullptr;
    }
    Ktab::Status IdOf(const std::string& path, uint64_t& id) {
        return ktab.Set(Node::sched_groupPathNameToID, nullptr, Params(path), &id, 8);
    }
    int64_t Children(uint64_t id) {  // or -(status)
        Ktab::ParamList* out = nullptr;
        auto status =
            ktab.GetInstanceListAlloc(Node::sched_groups_members_groups, Params(id), &out);
        lists.push_back(out);
        return status == 0 ? ktab.ParamListNumInstances(out) : -int64_t{status};
    }

    Ktab::Interface& ktab = *Ktab::Interface::sInstance;
    Pelinor::System::ProcessLauncher& launcher = *Pelinor::System::ProcessLauncher::sInstance;
    std::vector<Ktab::ParamList*> lists;
    std::mutex mutex;
    std::vector<Pelinor::System::RunEnd> ends;
    TessardTest::TempDir temp;
    int32_t pid = -1;
    bool v2 = false;
    std::string name, root, pool, limitFile, peakFile;
};

TEST_F(Cgroup, KtabAnswersGroupIdsAndChildrenFromTheHierarchy) {
    MakeGroups(kPoolPath);
    char release[5];
    const char* myDate = nullptr;
    EXPECT_EQ(ktab.CheckSig(release, sizeof release, &myDate), 0);
    ::setenv(kRootVariable, "/nonexistent/cgroup", 1);
    EXPECT_NE(ktab.CheckSig(release, sizeof release, &myDate), 0);
    EXPECT_EQ(release, ReadFile("/proc/sys/kernel/osrelease").substr(0, 4)) << "cut to fit";
    EXPECT_TRUE(myDate != nullptr && *myDate != '\0');
    uint64_t id = 0, again = 0;
    EXPECT_EQ(IdOf(kPoolPath, id), kMissing);

    // The hierarchy is also found as the memory/ child (v1) or the root itself (v2).
    ::setenv(kRootVariable, "/sys/fs/cgroup/", 1);
    ASSERT_EQ(IdOf(name + "/" + kPoolPath, id), 0u);
    struct stat status {};
    ASSERT_EQ(::stat(pool.c_str(), &status), 0);
    EXPECT_EQ(id, status.st_ino);
    ::setenv(kRootVariable, root.c_str(), 1);
    ASSERT_EQ(IdOf(std::string("/") + kPoolPath, again), 0u);
    EXPECT_EQ(again, id);
    EXPECT_EQ(IdOf("host/cgroup.procs", again), static_cast<Ktab::Status>(ENOTDIR));
    EXPECT_EQ(IdOf("host/../host", again), kInvalid);
    EXPECT_EQ(ktab.Set(Node::sched_groupPathNameToID, nullptr, Params(kPoolPath), &again, 4),
              kInvalid);
    EXPECT_EQ(ktab.Set(Node::sched_groupPathNameToID, nullptr, nullptr, &again, 8), kInvalid);

    const std::string a = std::string(kPoolPath) + "/a";
    EXPECT_EQ(Children(id), 0);
    MakeGroups(a);
    MakeGroups(std::string(kPoolPath) + "/b");
    EXPECT_EQ(Children(id), 2);
    EXPECT_EQ(Children(12345), -ENOENT) << "an id never handed out";

    // An id dies with its directory, even when a group of the same name comes back.
    ASSERT_EQ(IdOf(a, id), 0u);
    EXPECT_EQ(Children(id), 0);
    ASSERT_EQ(::rmdir((root + "/" + a).c_str()), 0);
    EXPECT_EQ(Children(id), -ENOENT);
    MakeGroups(a);
    EXPECT_EQ(Children(id), -ENOENT);
}

TEST_F(Cgroup, LauncherRefusesBadRequestsAndKeepsOnlyGroupsInUse) {
    MakeGroups(kPoolPath);
    for (const char* bad :
         {"", "++group=other,mem=16", "++group=tessard-plugins", "++group=tessard-plugins,mem=0",
          "++group=tessard-plugins,mem=-1", "++group=tessard-plugins,mem=12x",
          "++group=tessard-plugins,mem=", "++group=tessard-plugins,mem=99999999999999"}) {
        EXPECT_EQ(Launch({"/bin/true", bad}), EINVAL) << bad;
    }
    EXPECT_EQ(Launch({"/bin/true", kRequest, kRequest}), EINVAL) << "two requests";

    // Leftovers: a dead daemon's (no pid is that large), a live one's (init), a stranger's.
    for (const char* leftover : {"run-99999999-0", "run-1-0", "other"})
        MakeGroups(std::string(kPoolPath) + "/" + leftover);
    TessardTest::WriteFile(temp / "data", "");
    EXPECT_EQ(Launch({temp / "missing", kRequest}), ENOENT);
    EXPECT_EQ(Launch({temp / "data", kRequest}), EACCES);
    EXPECT_EQ(pid, -1) << "a failed launch leaves the pid alone";
    EXPECT_EQ(ChildGroups(pool), (std::vector<std::string>{"other", "run-1-0"}))
        << "the dead daemon's group is swept; the failed starts leave nothing";
    for (const char* leftover : {"run-1-0", "other"}) ::rmdir((pool + "/" + leftover).c_str());

    // An ignored SIGCHLD inherited by a plugin would lose its children's exit statuses.
    // env keeps the dispositions it was given and takes the request for a variable.
    auto daemonChild = ::signal(SIGCHLD, SIG_IGN);
    int launched = Launch({"/usr/bin/env", kRequest, "sleep", "60"});
    ::signal(SIGCHLD, daemonChild);
    ASSERT_EQ(launched, 0);
    std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    uint64_t ignored = std::stoull(status.substr(status.find("SigIgn:") + 7), nullptr, 16);
    EXPECT_EQ(ignored >> (SIGCHLD - 1) & 1, 0u) << status;
    auto groups = ChildGroups(pool);
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(Number(pool + "/" + groups[0] + "/" + limitFile), 16u << 20);

    uint64_t poolId = 0;
    ASSERT_EQ(IdOf(kPoolPath, poolId), 0u);
    uint8_t record[Ktab::kMemoryStatsSize] = {};
    auto stats = [&](size_t size) {
        return ktab.Get(Node::sched_groups_stats_memoryStats, Params(poolId), record, size);
    };
    EXPECT_EQ(stats(sizeof record - 1), kInvalid);
    ASSERT_EQ(stats(sizeof record), 0u);
    auto kb = [&](size_t at) {
        uint64_t value = 0;
        std::memcpy(&value, record + at, sizeof value);
        return value;
    };
    EXPECT_GT(kb(Ktab::kChildrenPeakReservationOffset), 0u);
    EXPECT_EQ(kb(Ktab::kChildrenPeakReservationOffset),
              Number(pool + "/" + groups[0] + "/" + peakFile) / 1024);
    EXPECT_EQ(kb(Ktab::kPeakReservationOffset), Number(pool + "/" + peakFile) / 1024);

    // Reaped by the launcher, with its group gone once it is.
    auto end = StopRun();
    EXPECT_TRUE(end.stopped && end.signalled && end.status == SIGTERM && !end.killed);
    EXPECT_GT(end.peakKb, 0u);
    EXPECT_TRUE(ChildGroups(pool).empty());
    EXPECT_EQ(launcher.Signal(pid, 0), ESRCH) << "the pid may be another process's by now";

    MakeGroups("bare");  // a memory group without the pool in it
    ::setenv(kRootVariable, (root + "/bare").c_str(), 1);
    EXPECT_EQ(Launch({"/bin/true", kRequest}), ENOENT);
    ::setenv(kRootVariable, temp.Path().c_str(), 1);  // no cgroup at all
    EXPECT_EQ(Launch({"/bin/true", kRequest}), ENOENT);
    EXPECT_EQ(launcher.Signal(::getpid(), 0), ESRCH) << "only its own children";
}

TEST_F(Cgroup, PoolScriptCreatesReportsAndRemovesOnlyWhatItMade) {
    EXPECT_EQ(Pool("status"), 1);
    MakeGroups("host");  // not the script's: remove must leave it
    ASSERT_EQ(Pool("create --cap-mb 64"), 0);
    EXPECT_EQ(Number(pool + "/" + limitFile), 64u << 20);
    ASSERT_EQ(Pool("create --cap-mb 128"), 0);
    EXPECT_EQ(Number(pool + "/" + limitFile), 128u << 20);
    ASSERT_EQ(Pool("create"), 0);  // as the service does at every start
    EXPECT_EQ(Number(pool + "/" + limitFile), 128u << 20) << "the operator's cap stays";
    EXPECT_EQ(Pool("status"), 0);
    EXPECT_EQ(Pool("create --cap-mb 0"), 2);
    EXPECT_EQ(Pool("create --cap-mb lots"), 2);
    EXPECT_EQ(Pool("resize"), 2);
    EXPECT_EQ(Pool("create --root /nonexistent/cgroup"), 3);

    // A plugin still running keeps the pool; empty child groups go with it.
    ASSERT_EQ(Launch({"/usr/bin/env", kRequest, "sleep", "60"}), 0);
    EXPECT_EQ(Pool("remove"), 1);
    EXPECT_TRUE(fs::is_directory(pool));
    StopRun();
    MakeGroups(std::string(kPoolPath) + "/idle");
    EXPECT_EQ(Pool("remove"), 0);
    EXPECT_FALSE(fs::exists(root + "/host/zol"));
    EXPECT_TRUE(fs::is_directory(root + "/host"));
    EXPECT_EQ(Pool("remove"), 0);
}

}  // namespace
