// A cgroup v1 memory group of the test's own, for tests that launch plugins for real.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/temp_dir.h"

namespace TessardTest {

class TestCgroup {
  public:
    // Makes a group below the cgroup v1 memory hierarchy (and its counterpart in a v1 pids
    // hierarchy, where there is one) and, given the pool set-up script, the plugin pool in it.
    // Where that cannot be done, SkipReason() says why.
    explicit TestCgroup(const std::string& poolScript = {}) {
        const std::string memory = "/sys/fs/cgroup/memory",
                          name = "/tessard-test-" + std::to_string(::getpid());
        if (!std::filesystem::exists(memory + "/memory.limit_in_bytes") ||
            ::mkdir((memory + name).c_str(), 0755) != 0) {
            skipReason = "cannot make a group in a cgroup v1 memory hierarchy at " + memory + ": " +
                         std::strerror(errno);
            return;
        }
        root = memory + name;
        pidsRoot = "/sys/fs/cgroup/pids" + name;
        ::mkdir(pidsRoot.c_str(), 0755);  // where v1 has a pids hierarchy beside memory
        if (poolScript.empty()) return;
        EXPECT_EQ(Pool(poolScript, "create --root " + root + " --cap-mb 256 >/dev/null"), 0);
    }
    // Removes the groups with every process still in them.
    ~TestCgroup() {
        RemoveTree(root);
        RemoveTree(pidsRoot);
    }
    TestCgroup(const TestCgroup&) = delete;
    TestCgroup& operator=(const TestCgroup&) = delete;

    const std::string& Root() const { return root; }  // for TESSARD_CGROUP_ROOT
    const std::string& SkipReason() const { return skipReason; }
    // The pool script's exit code; what it prints goes to the test's log.
    int Pool(const std::string& script, const std::string& arguments) {
        int status = std::system(
            ("TESSARD_POOL_STATE_DIR=" + state.Path() + " bash " + script + " " + arguments)
                .c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    // Deepest first, killing what still runs in it (plugins that outlived the daemon: only the
    // test's own processes can be there).
    static void RemoveTree(const std::filesystem::path& group) {
        if (!std::filesystem::is_directory(group)) return;
        for (const auto& entry : std::filesystem::directory_iterator(group))
            if (entry.is_directory()) RemoveTree(entry.path());
        for (int round = 0; ::rmdir(group.c_str()) != 0 && errno == EBUSY && round < 1000;
             ++round) {
            std::ifstream procs(group / "cgroup.procs");
            for (pid_t pid; procs >> pid;) ::kill(pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    TempDir state;  // the pool script's record of what it made stays with the test
    std::string root, pidsRoot, skipReason;
};

}  // namespace TessardTest
