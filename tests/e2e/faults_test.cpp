// What is found in the report directory is never written through.
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/daemon_process.h"

namespace TessardTest {
namespace {

TEST(Faults, WhatIsPlantedAtATemporaryNameIsReplacedNotWrittenThrough) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.Ready()) << daemon.Logs();
    const std::string dir = daemon.ReportDir() + "/";
    TempDir outside;
    WriteFile(outside / "victim", "precious");
    std::filesystem::create_symlink(outside / "victim", dir + ".col-0.json");
    std::filesystem::create_hard_link(outside / "victim", dir + ".col-1.json");
    ASSERT_EQ(0, ::mkfifo((dir + ".col-2.json").c_str(), 0644));
    for (int i = 0; i < 3; ++i) {
        const std::string body = R"({"n":)" + std::to_string(i) + "}";
        EXPECT_EQ(200, PostStatus(daemon.Port(), "/col", body)) << i;
        EXPECT_EQ(body, ReadFile(dir + "col-" + std::to_string(i) + ".json"));
    }
    EXPECT_EQ("precious", ReadFile(outside / "victim"));
    EXPECT_EQ((std::set<std::string>{"col-0.json", "col-1.json", "col-2.json", "col.json"}),
              ListDir(daemon.ReportDir()));
    EXPECT_EQ(0, daemon.Terminate());
}

}  // namespace
}  // namespace TessardTest
