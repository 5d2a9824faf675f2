// The three-slot ring of stored reports and its continuation across restarts.
#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

namespace fs = std::filesystem;

std::string Body(const std::string& tag) {
    return R"({"report":")" + tag + R"("})";
}
std::string Slot(const std::string& name, int index) {
    return name + "-" + std::to_string(index) + ".json";
}

// The report landed in `index` whole, and the link names it.
testing::AssertionResult StoredIn(const DaemonProcess& daemon, const std::string& name, int index,
                                  const std::string& body) {
    const std::string dir = daemon.ReportDir() + "/";
    if (!fs::is_regular_file(fs::symlink_status(dir + Slot(name, index))))
        return testing::AssertionFailure() << "no regular file " << Slot(name, index);
    std::string content = ReadFile(dir + Slot(name, index));
    if (content != body) return testing::AssertionFailure() << "content " << content;
    std::string link = ReadLink(dir + name + ".json");
    if (link != Slot(name, index)) return testing::AssertionFailure() << "link names " << link;
    return testing::AssertionSuccess();
}

TEST(Ring, RotatesThroughThreeSlotsAndContinuesAfterRestart) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    for (int i = 1; i <= 4; ++i) {
        ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/cpu", Body("cpu" + std::to_string(i))));
        int index = (i - 1) % 3;
        EXPECT_TRUE(StoredIn(daemon, "cpu", index, Body("cpu" + std::to_string(i)))) << i;
        EXPECT_TRUE(
            daemon.HasLine("trivia", kHandlerLogger, "Rotated filename: " + Slot("cpu", index)));
        EXPECT_TRUE(daemon.HasLine("trivia", kHandlerLogger, "Index: " + std::to_string(index)));
    }
    EXPECT_EQ(Body("cpu2"), ReadFile(dir + "cpu-1.json"));
    EXPECT_EQ(Body("cpu3"), ReadFile(dir + "cpu-2.json"));
    EXPECT_EQ(4, daemon.CountLines("verbose", kHandlerLogger, "Report Name: /report/cpu"));
    EXPECT_EQ(4, daemon.CountLines("info", kHandlerLogger, "Report Path: " + dir + "cpu"));
    for (int i = 1; i <= 2; ++i)
        ASSERT_EQ(200, PostStatus(daemon.Port(), "/other/mem", Body("mem" + std::to_string(i))));
    EXPECT_TRUE(StoredIn(daemon, "mem", 1, Body("mem2")));
    // Temporary files are all renamed away.
    EXPECT_EQ((std::set<std::string>{"cpu-0.json", "cpu-1.json", "cpu-2.json", "cpu.json",
                                     "mem-0.json", "mem-1.json", "mem.json"}),
              ListDir(daemon.ReportDir()));

    EXPECT_EQ(0, daemon.Terminate());
    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();
    // cpu-0 is the newest, yet only indices count: the highest is 2, so slot 0 follows.
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/cpu", Body("cpu5")));
    EXPECT_TRUE(StoredIn(daemon, "cpu", 0, Body("cpu5")));
    EXPECT_EQ(Body("cpu2"), ReadFile(dir + "cpu-1.json"));
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/cpu", Body("cpu6")));
    EXPECT_TRUE(StoredIn(daemon, "cpu", 1, Body("cpu6")));
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/report/mem", Body("mem3")));
    EXPECT_TRUE(StoredIn(daemon, "mem", 2, Body("mem3")));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Ring, ResumesFromTheFilesFoundOnDisk) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    ASSERT_EQ(0, daemon.Terminate());
    for (const char* file :
         {"net-1.json", "gpu-1.json", "gpu-5.json", "io-0.json", "io-12.json", "fs-0.json",
          "x-y-2.json", "web-0.json", ".web-2.json", "net.json.tmp", "a_b-0.json"})
        WriteFile(dir + file, "{}");
    fs::create_directory(dir + "fs-2.json");
    ASSERT_TRUE(daemon.Restart()) << daemon.Logs();

    struct Case {
        std::string name;
        int index;
    };
    // Only regular files named <name>-<one digit>.json below 3 count; the name goes into the
    // pattern as it is, so "a.b" also counts "a_b-0.json".
    for (const Case& c : {Case{"net", 2}, Case{"gpu", 0}, Case{"io", 1}, Case{"fs", 1},
                          Case{"x", 0}, Case{"web", 1}, Case{"a.b", 1}, Case{"new", 0}}) {
        ASSERT_EQ(200, PostStatus(daemon.Port(), "/r/" + c.name, Body(c.name)));
        EXPECT_TRUE(StoredIn(daemon, c.name, c.index, Body(c.name))) << c.name;
    }
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
