// The kernel-information interface, the process launcher and the pool script against a real
// cgroup v1 memory group of the test's own, which $TESSARD_CGROUP_ROOT points at. cgroup v2 is
// the guest test's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/kernel/ktab.h"
#include "platform/kernel/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_cgroup.h"

namespace {

namespace fs = std::filesystem;
namespace Ktab = Pelinor::Ktab;
using Ktab::Node;
using namespace TessardTest;

constexpr const char* kRootVariable = "TESSARD_CGROUP_ROOT";
using Ktab::kPoolPath;
constexpr const char* kRequest = "++group=tessard-plugins,mem=16";

struct Cgroup : testing::Test {
    void SetUp() override {
        if (!cgroup.SkipReason().empty()) GTEST_SKIP() << cgroup.SkipReason();
        ::setenv(kRootVariable, root.c_str(), 1);
    }
    void TearDown() override {
        for (auto* list : lists) ktab.ParamListDestroy(list);
        ::unsetenv(kRootVariable);  // nothing else in this binary reads it
    }

    void MakeGroups(const std::string& path) { fs::create_directories(root + "/" + path); }

    // Launches args[0] with `args`; only a launch that succeeds sets `pid`.
    int Launch(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        Pelinor::System::RunOptions options;
        options.name = "test";
        options.logger = Pelinor::Service::Logger::sDefaultLogger;
        return launcher.Launch(argv[0], argv.data(), options, pid);
    }

    int Pool(const std::string& arguments) {
        return cgroup.Pool(fs::path(__FILE__).parent_path() / "../../packaging/tessard-pool.sh",
                           arguments);
    }

    Ktab::Status IdOf(const std::string& path, uint64_t& id) {
        auto* params = lists.emplace_back(ktab.ParamListCreate(0, 1));
        EXPECT_EQ(ktab.ParamListAddString(params, path.c_str()), 0u);
        return ktab.Set(Node::sched_groupPathNameToID, nullptr, params, &id, 8);
    }
    int64_t Children(uint64_t id) {  // or -(status)
        auto* params = lists.emplace_back(ktab.ParamListCreate(0, 1));
        EXPECT_EQ(ktab.ParamListAddInt(params, id), 0u);
        Ktab::ParamList* out = nullptr;
        auto status = ktab.GetInstanceListAlloc(Node::sched_groups_members_groups, params, &out);
        return status == 0 ? ktab.ParamListNumInstances(lists.emplace_back(out)) : -int64_t{status};
    }

    TestCgroup cgroup;
    const std::string root = cgroup.Root(), pool = root + "/" + kPoolPath;
    Ktab::Interface& ktab = *Ktab::Interface::sInstance;
    Pelinor::System::ProcessLauncher& launcher = *Pelinor::System::ProcessLauncher::sInstance;
    std::vector<Ktab::ParamList*> lists;
    int32_t pid = -1;
};

TEST_F(Cgroup, KtabAnswersFromTheHierarchyAndTheLauncherKeepsOnlyGroupsInUse) {
    MakeGroups(kPoolPath);
    char release[5];
    const char* myDate = nullptr;
    EXPECT_EQ(ktab.CheckSig(release, sizeof release, &myDate), 0);
    ::setenv(kRootVariable, "/nonexistent/cgroup", 1);
    EXPECT_NE(ktab.CheckSig(release, sizeof release, &myDate), 0);
    EXPECT_EQ(release, ReadFile("/proc/sys/kernel/osrelease").substr(0, 4)) << "cut to fit";
    EXPECT_TRUE(myDate != nullptr && *myDate != '\0');
    uint64_t id = 0, again = 0;
    EXPECT_EQ(IdOf(kPoolPath, id), static_cast<Ktab::Status>(ENOENT));

    // The hierarchy is also found as the memory/ child; a path may start with '/'.
    ::setenv(kRootVariable, "/sys/fs/cgroup/", 1);
    ASSERT_EQ(IdOf(fs::path(root).filename() / kPoolPath, id), 0u);
    ::setenv(kRootVariable, root.c_str(), 1);
    ASSERT_EQ(IdOf(std::string("/") + kPoolPath, again), 0u);
    EXPECT_EQ(again, id);

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

    // The launcher refuses what it cannot honour before it makes a group.
    for (const char* bad :
         {"", "++group=other,mem=16", "++group=tessard-plugins", "++group=tessard-plugins,mem=0",
          "++group=tessard-plugins,mem=12x", "++group=tessard-plugins,mem=99999999999999"})
        EXPECT_EQ(Launch({"/bin/true", bad}), EINVAL) << bad;
    EXPECT_EQ(Launch({"/bin/true", kRequest, kRequest}), EINVAL) << "two requests";

    // Leftovers: a dead daemon's (no pid is that large), a live one's (init), strangers' (a, b).
    for (const char* leftover : {"run-99999999-0", "run-1-0", "other"})
        MakeGroups(std::string(kPoolPath) + "/" + leftover);
    EXPECT_EQ(Launch({"/nonexistent/plugin", kRequest}), ENOENT);
    EXPECT_EQ(pid, -1) << "a failed launch leaves the pid alone";
    std::set<std::string> groups;
    for (const auto& entry : fs::directory_iterator(pool))
        if (entry.is_directory()) groups.insert(entry.path().filename());
    EXPECT_EQ(groups, (std::set<std::string>{"a", "b", "other", "run-1-0"}))
        << "the dead daemon's group is swept; the failed start leaves nothing";

    MakeGroups("bare");  // a memory group without the pool in it
    ::setenv(kRootVariable, (root + "/bare").c_str(), 1);
    EXPECT_EQ(Launch({"/bin/true", kRequest}), ENOENT);
}

TEST_F(Cgroup, PoolScriptCreatesReportsAndRemovesOnlyWhatItMade) {
    MakeGroups("host");  // not the script's: remove must leave it
    // In order: the arguments, the exit code, and the pool's cap after them (MiB; 0: no pool).
    struct Row {
        std::string arguments;
        int code;
        uint64_t capMb;
    } rows[] = {
        {"status", 1, 0},
        {"create --cap-mb 64", 0, 64},
        {"create --cap-mb 128", 0, 128},
        {"create", 0, 128},  // as the service does at every start: the operator's cap stays
        {"status", 0, 128},
        {"create --cap-mb 0", 2, 128},
        {"resize", 2, 128},
        {"create --root /nonexistent/cgroup", 3, 128},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(Pool(row.arguments), row.code) << row.arguments;
        EXPECT_EQ(
            fs::exists(pool) ? std::stoull(ReadFile(pool + "/memory.limit_in_bytes")) >> 20 : 0,
            row.capMb)
            << row.arguments;
    }

    // A plugin still running keeps the pool; empty child groups go with it. (env takes the
    // request for a variable.)
    ASSERT_EQ(Launch({"/usr/bin/env", kRequest, "sleep", "60"}), 0);
    EXPECT_EQ(Pool("remove"), 1);
    EXPECT_TRUE(fs::is_directory(pool));
    EXPECT_EQ(launcher.Stop(pid, std::chrono::seconds(2)), 0);
    EXPECT_TRUE(launcher.WaitIdle(std::chrono::seconds(10))) << "its group is gone";
    MakeGroups(std::string(kPoolPath) + "/idle");
    EXPECT_EQ(Pool("remove"), 0);
    EXPECT_FALSE(fs::exists(root + "/host/zol"));
    EXPECT_TRUE(fs::is_directory(root + "/host"));
    EXPECT_EQ(Pool("remove"), 0);
}

}  // namespace
