// The three-slot ring of stored reports and its continuation across restarts.
#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

// The report landed whole in a regular file at `index`, and the link names it.
testing::AssertionResult StoredIn(const DaemonProcess& daemon, const std::string& name, int index,
                                  const std::string& body) {
    const std::string dir = daemon.ReportDir() + "/";
    const std::string slot = name + "-" + std::to_string(index) + ".json";
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(dir + slot)))
        return testing::AssertionFailure() << "no regular file " << slot;
    if (ReadFile(dir + slot) != body) return testing::AssertionFailure() << "content of " << slot;
    if (ReadLink(dir + name + ".json") != slot)
        return testing::AssertionFailure() << "link names " << ReadLink(dir + name + ".json");
    return testing::AssertionSuccess();
}

TEST(Ring, RotatesThroughThreeSlotsAndContinuesAfterRestart) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/cpu", std::to_string(i)));
        EXPECT_TRUE(StoredIn(daemon, "cpu", i % 3, std::to_string(i))) << i;
    }
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/other/mem", "m"));
    // Temporary files are all renamed away.
    EXPECT_EQ((std::set<std::string>{"cpu-0.json", "cpu-1.json", "cpu-2.json", "cpu.json",
                                     "mem-0.json", "mem.json"}),
              ListDir(daemon.ReportDir()));
    EXPECT_EQ("1", ReadFile(daemon.ReportDir() + "/cpu-1.json"));

    EXPECT_EQ(0, daemon.Terminate());
    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    // cpu-0 is the newest, yet only indices count: the highest is 2, so slot 0 follows.
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/cpu", "4"));
    EXPECT_TRUE(StoredIn(daemon, "cpu", 0, "4"));
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/mem", "m1"));
    EXPECT_TRUE(StoredIn(daemon, "mem", 1, "m1"));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
