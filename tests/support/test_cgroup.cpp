#include "tests/support/test_cgroup.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace TessardTest {

namespace {

constexpr const char* kMemory = "/sys/fs/cgroup/memory";
constexpr const char* kPids = "/sys/fs/cgroup/pids";

// Removes a group tree deepest first, killing what still runs in it (plugins that outlived
// the daemon: only the test's own processes can be there).
void RemoveTree(const std::filesystem::path& group) {
    if (!std::filesystem::is_directory(group)) return;
    for (const auto& entry : std::filesystem::directory_iterator(group))
        if (entry.is_directory()) RemoveTree(entry.path());
    for (int round = 0; ::rmdir(group.c_str()) != 0 && errno == EBUSY && round < 1000; ++round) {
        std::ifstream procs(group / "cgroup.procs");
        for (pid_t pid; procs >> pid;) ::kill(pid, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

TestCgroup::TestCgroup(const std::string& poolScript) {
    std::string name = "/tessard-test-" + std::to_string(::getpid());
    if (!std::filesystem::exists(std::string(kMemory) + "/memory.limit_in_bytes") ||
        ::mkdir((kMemory + name).c_str(), 0755) != 0) {
        skipReason = std::string("cannot make a group in a cgroup v1 memory hierarchy at ") +
                     kMemory + ": " + std::strerror(errno);
        return;
    }
    root = kMemory + name;
    pidsRoot = kPids + name;
    ::mkdir(pidsRoot.c_str(), 0755);  // where v1 has a pids hierarchy beside memory
    if (poolScript.empty()) return;
    std::string command = "TESSARD_POOL_STATE_DIR=" + state.Path() + " bash " + poolScript +
                          " create --root " + root + " --cap-mb 256 >/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

TestCgroup::~TestCgroup() {
    RemoveTree(root);
    RemoveTree(pidsRoot);
}

}  // namespace TessardTest
