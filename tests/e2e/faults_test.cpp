// Report directory faults: each request tries again, so fixing the fault heals the daemon.
#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

namespace fs = std::filesystem;

testing::AssertionResult RefusedAsNoDirectory(const DaemonProcess& daemon, int times) {
    const std::string dir = daemon.ReportDir() + "/";
    int invalid = daemon.CountLines("error", kHandlerLogger, "Invalid directory: " + dir);
    int opening =
        daemon.CountLines("error", kHandlerLogger,
                          "Error opening directory " + dir + ": '" + dir + "' is not a directory");
    if (invalid == times && opening == times) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << invalid << " and " << opening << " lines instead of " << times << ":\n"
           << daemon.Logs();
}

// Counts lines "Caught <text> while attempting to create file: <path>".
int CaughtCreating(const DaemonProcess& daemon, const std::string& path) {
    int count = 0;
    for (const auto& e : daemon.LogEntries())
        count += e.level == "error" && e.logger == kHandlerLogger &&
                 e.message.starts_with("Caught ") &&
                 e.message.ends_with(" while attempting to create file: " + path);
    return count;
}

TEST(Faults, MissingDirectoryOrFileInItsPlaceUntilFixed) {
    DaemonOptions options;
    options.createReportDir = false;
    DaemonProcess daemon(options);
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/a", "{}"));
    EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/a", "{}"));
    EXPECT_TRUE(RefusedAsNoDirectory(daemon, 2));

    WriteFile(daemon.ReportDir(), "not a directory");
    EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/a", "{}"));
    EXPECT_TRUE(RefusedAsNoDirectory(daemon, 3));
    EXPECT_EQ(std::set<std::string>{"reports"}, ListDir(daemon.WorkDir()));

    fs::remove(daemon.ReportDir());
    fs::create_directory(daemon.ReportDir());
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/a", R"({"a":1})"));
    EXPECT_EQ(R"({"a":1})", ReadFile(dir + "a-0.json"));
    EXPECT_EQ("a-0.json", ReadLink(dir + "a.json"));
    EXPECT_EQ(0, CaughtCreating(daemon, dir + ".a-0.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Faults, DirectoryRemovedWhileRunning) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    ASSERT_EQ(200, PostStatus(daemon.Port(), "/r/old", R"({"n":1})"));
    fs::remove_all(daemon.ReportDir());

    EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/new", "{}"));
    EXPECT_TRUE(RefusedAsNoDirectory(daemon, 1));
    EXPECT_EQ(500, PostStatus(daemon.Port(), "/r/old", R"({"n":2})"));
    EXPECT_EQ(1, CaughtCreating(daemon, dir + ".old-1.json")) << daemon.Logs();
    EXPECT_TRUE(daemon.HasLine("error", kHandlerLogger, "Creation of report failed"));
    EXPECT_FALSE(fs::exists(daemon.ReportDir()));

    fs::create_directory(daemon.ReportDir());
    // The failed attempt used slot 1.
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/old", R"({"n":3})"));
    EXPECT_EQ(R"({"n":3})", ReadFile(dir + "old-2.json"));
    EXPECT_EQ("old-2.json", ReadLink(dir + "old.json"));
    EXPECT_EQ(200, PostStatus(daemon.Port(), "/r/new", "{}"));
    EXPECT_EQ("new-0.json", ReadLink(dir + "new.json"));
    EXPECT_EQ((std::set<std::string>{"new-0.json", "new.json", "old-2.json", "old.json"}),
              ListDir(daemon.ReportDir()));
    EXPECT_EQ(0, daemon.Terminate());
}

TEST(Faults, TemporaryFileThatCannotBeCreatedCostsItsSlot) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    // Root ignores permissions; a directory in the temporary file's place stops it instead.
    fs::create_directory(dir + ".t-0.json");
    const std::vector<int> expected = {500, 200, 200, 500, 200};
    for (size_t i = 0; i < expected.size(); ++i) {
        std::string body = R"({"i":)" + std::to_string(i) + "}";
        ASSERT_EQ(expected[i], PostStatus(daemon.Port(), "/r/t", body)) << i;
        if (expected[i] == 200) {
            std::string slot = "t-" + std::to_string(i % 3) + ".json";
            EXPECT_EQ(body, ReadFile(dir + slot));
            EXPECT_EQ(slot, ReadLink(dir + "t.json"));
        }
    }
    EXPECT_EQ(2, CaughtCreating(daemon, dir + ".t-0.json")) << daemon.Logs();
    EXPECT_EQ(2, daemon.CountLines("error", kHandlerLogger, "Creation of report failed"));
    EXPECT_FALSE(fs::exists(dir + "t-0.json"));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
