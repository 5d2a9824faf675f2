#include "tests/support/test_cgroup.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace TessardTest {

namespace fs = std::filesystem;

namespace {

constexpr const char* kMemoryHierarchy = "/sys/fs/cgroup/memory";
constexpr const char* kPidsHierarchy = "/sys/fs/cgroup/pids";

std::vector<int> Pids(const fs::path& procs) {
    std::vector<int> pids;
    std::ifstream in(procs);
    for (int pid; in >> pid;) pids.push_back(pid);
    return pids;
}

// Removes a group tree with every process still in it: plugins that outlive the daemon.
void RemoveTree(const std::string& top) {
    for (int round = 0; round < 50; ++round) {
        bool any = false;
        for (const auto& entry : fs::recursive_directory_iterator(top)) {
            if (entry.path().filename() != "cgroup.procs") continue;
            for (int pid : Pids(entry.path())) {
                ::kill(pid, SIGKILL);
                any = true;
            }
        }
        if (!any) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::vector<fs::path> groups;
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
        if (entry.is_directory()) groups.push_back(entry.path());
    }
    std::sort(groups.rbegin(), groups.rend());  // children before parents
    for (const auto& group : groups) ::rmdir(group.c_str());
    ::rmdir(top.c_str());
}

}  // namespace

TestCgroup::TestCgroup(const std::string& poolScript) {
    const std::string memory = kMemoryHierarchy;
    if (!fs::exists(memory + "/memory.limit_in_bytes")) {
        skipReason = "no cgroup v1 memory hierarchy at " + memory;
        return;
    }
    root = memory + "/tessard-e2e-" + std::to_string(getpid());
    if (::mkdir(root.c_str(), 0755) != 0) {
        skipReason = "cannot create a cgroup under " + memory + ": " + std::strerror(errno);
        root.clear();
        return;
    }
    // Where v1 has a pids hierarchy, the pool gets its counterpart there.
    if (fs::exists(std::string(kPidsHierarchy) + "/cgroup.procs")) {
        pidsRoot = std::string(kPidsHierarchy) + root.substr(memory.size());
        ::mkdir(pidsRoot.c_str(), 0755);
    }
    if (!poolScript.empty()) {
        std::string command = "TESSARD_POOL_STATE_DIR=" + state.Path() + " bash " + poolScript +
                              " create --root " + root + " --cap-mb 256 >/dev/null";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    }
}

TestCgroup::~TestCgroup() {
    if (root.empty()) return;
    RemoveTree(root);
    if (fs::is_directory(pidsRoot)) RemoveTree(pidsRoot);
}

std::string TestCgroup::ProcPath() const {
    return root.substr(std::string(kMemoryHierarchy).size());
}

}  // namespace TessardTest
