// A cgroup v1 memory group of the test's own, for tests that launch plugins for real.
#pragma once

#include <string>

#include "tests/support/temp_dir.h"

namespace TessardTest {

class TestCgroup {
  public:
    // Makes a group below the cgroup v1 memory hierarchy (and its counterpart in a v1 pids
    // hierarchy, where there is one) and, given the pool set-up script, the plugin pool in it.
    // Where that cannot be done, SkipReason() says why.
    explicit TestCgroup(const std::string& poolScript = {});
    // Removes the groups with every process still in them.
    ~TestCgroup();
    TestCgroup(const TestCgroup&) = delete;
    TestCgroup& operator=(const TestCgroup&) = delete;

    const std::string& Root() const { return root; }  // for TESSARD_CGROUP_ROOT
    const std::string& SkipReason() const { return skipReason; }

  private:
    TempDir state;  // the pool script's record of what it made stays with the test
    std::string root, pidsRoot, skipReason;
};

}  // namespace TessardTest
