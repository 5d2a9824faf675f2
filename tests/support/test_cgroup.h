// A memory cgroup of the test's own, for end-to-end tests that launch plugins for real.
#pragma once

#include <string>

#include "tests/support/temp_dir.h"

namespace TessardTest {

class TestCgroup {
  public:
    // Makes a group below the cgroup v1 memory hierarchy and, given the pool set-up script,
    // the plugin pool in it. Where that cannot be done, SkipReason() says why.
    explicit TestCgroup(const std::string& poolScript = {});
    // Removes the group with every process still in it.
    ~TestCgroup();
    TestCgroup(const TestCgroup&) = delete;
    TestCgroup& operator=(const TestCgroup&) = delete;

    const std::string& Root() const { return root; }  // for TESSARD_CGROUP_ROOT
    const std::string& SkipReason() const { return skipReason; }
    // The group's path as /proc/<pid>/cgroup names it.
    std::string ProcPath() const;

  private:
    TempDir state;  // the pool script's record of what it made stays with the test
    std::string root;
    std::string pidsRoot;  // its counterpart in a v1 pids hierarchy, if there is one
    std::string skipReason;
};

}  // namespace TessardTest
