#include "report/report_roller.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/base/exceptions.h"
#include "tests/support/fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;
using Tessard::ReportRoller;
using TessardTest::ReadFile;
using TessardTest::ReadLink;
using TessardTest::WriteFile;

class ReportRollerTest : public testing::Test {
  protected:
    std::string Dir() const { return tmp.Path() + "/"; }
    Ref<ReportRoller> Roller(const std::string& name, const std::string& dir) {
        return MakeRef<ReportRoller>(dir, name, 3, logger);
    }
    Ref<ReportRoller> Roller(const std::string& name) { return Roller(name, Dir()); }

    // Writes one report through the roller, as the write job does.
    bool Store(ReportRoller& roller, const std::string& body) {
        Ref<Pelinor::System::OutputStream> stream;
        Ref<Pelinor::System::File> file;
        if (!roller.CreateTempFile(stream, file)) return false;
        stream->Write(body.data(), body.size());
        stream->Close();
        roller.Rotate(file);
        return true;
    }

    std::vector<std::string> Entries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(tmp.Path()))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    TessardTest::TempDir tmp;
    TessardTest::LogCapture log;
    Ref<Logger> logger = Logger::CreateLogger(Logger::sDefaultLogger, "TessardHandler");
};

std::string NameMessage(const std::string& name) {
    return "'" + name + "' contains unexpected regex meta characters" + std::string(19, ' ') +
           "(expected regex '[a-zA-Z0-9_.-]+')";
}

TEST_F(ReportRollerTest, ChecksTheNameBeforeTheDirectoryAndCreatesNothing) {
    for (std::string name : {"", "a b", "a+b", "%2e%2e", "a/b", "caf\xc3\xa9", ".", "..", ".a"}) {
        try {
            Roller(name, "/nonexistent/");
            ADD_FAILURE() << "accepted '" << name << "'";
        } catch (const Pelinor::InvalidArgumentException& e) {
            EXPECT_EQ(e.what(), NameMessage(name));
        }
    }
    EXPECT_FALSE(log.Has("Invalid directory: /nonexistent/")) << "the name fails first, silently";

    for (std::string name : {"a.b", "cpu_1-x", "A9"}) EXPECT_NO_THROW(Roller(name));
    EXPECT_TRUE(Entries().empty()) << "construction touches no file";

    WriteFile(tmp / "plain", "x");
    fs::create_directory(tmp / "real");
    fs::create_directory_symlink(tmp / "real", tmp / "link");
    for (std::string dir : {tmp / "missing/", tmp / "plain/", tmp / "plain", std::string()}) {
        try {
            Roller("cpu", dir);
            ADD_FAILURE() << "accepted directory " << dir;
        } catch (const Pelinor::InvalidArgumentException& e) {
            EXPECT_EQ(e.what(), "'" + dir + "' is not a directory");
            EXPECT_TRUE(log.Has(LogLevel::Error, "Invalid directory: " + dir));
        }
    }
    EXPECT_NO_THROW(Roller("cpu", tmp / "link/"));
}

TEST_F(ReportRollerTest, RestartContinuesFromTheHighestRegularReportFile) {
    struct Case {
        std::vector<std::string> files;
        std::string name;
        std::string nextFile;
    };
    const std::vector<Case> cases = {
        {{}, "n", "n-0.json"},
        {{"n-0.json", "n-1.json"}, "n", "n-2.json"},
        // After four reports slot 0 is the newest, yet the highest number wins.
        {{"n-0.json", "n-1.json", "n-2.json"}, "n", "n-0.json"},
        {{"n-7.json", "n-1.json"}, "n", "n-0.json"},  // out of the ring: start over
        {{"n-12.json", ".n-2.json", "n-x.json", "m-2.json"}, "n", "n-0.json"},
        {{"axb-1.json"}, "a.b", "a.b-2.json"},  // the name's "." matches any character
        {{"n-y-1.json", "n-1.json.tmp"}, "n", "n-0.json"},
        {{"n-0.json", "n-12.json"}, "n", "n-1.json"},  // not a slot at all
    };
    for (const auto& c : cases) {
        TessardTest::TempDir dir;
        for (const auto& f : c.files) WriteFile(dir / f, "old");
        auto roller = Roller(c.name, dir.Path() + "/");
        ASSERT_TRUE(Store(*roller, "new"));
        EXPECT_EQ(ReadFile(dir / c.nextFile), "new") << c.nextFile;
        EXPECT_EQ(ReadLink(dir / (c.name + ".json")), c.nextFile);
    }

    // Directories and links named like report files do not count.
    TessardTest::TempDir dir;
    fs::create_directory(dir / "n-1.json");
    WriteFile(dir / "target", "x");
    fs::create_symlink(dir / "target", dir / "n-0.json");
    auto roller = Roller("n", dir.Path() + "/");
    ASSERT_TRUE(Store(*roller, "new"));
    EXPECT_EQ(ReadFile(dir / "n-0.json"), "new");
    EXPECT_EQ(ReadFile(dir / "target"), "x");
    EXPECT_TRUE(fs::is_directory(dir / "n-1.json"));
}

TEST_F(ReportRollerTest, FailuresKeepTheRingMovingAndTheNewestVisible) {
    TessardTest::FaultyFactory faults;
    auto roller = Roller("cpu");
    ASSERT_TRUE(Store(*roller, "first"));

    faults.failOpen = true;
    Ref<Pelinor::System::OutputStream> stream;
    Ref<Pelinor::System::File> file;
    EXPECT_FALSE(roller->CreateTempFile(stream, file));
    EXPECT_FALSE(stream);
    EXPECT_TRUE(log.Has(
        LogLevel::Error,
        "Caught injected open failure while attempting to create file: " + Dir() + ".cpu-1.json"));
    faults.failOpen = false;

    // The failed open used up slot 1; a failed rename leaves slot 2 hidden.
    faults.failRename = true;
    ASSERT_TRUE(Store(*roller, "second"));
    faults.failRename = false;
    EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to rename the file to " + Dir() + "cpu-2.json"));
    EXPECT_EQ(ReadFile(tmp / ".cpu-2.json"), "second");
    EXPECT_EQ(ReadLink(tmp / "cpu.json"), "cpu-0.json");

    // A temporary file that vanished before Rotate.
    ASSERT_TRUE(roller->CreateTempFile(stream, file));
    stream->Close();
    fs::remove(file->GetPath());
    roller->Rotate(file);
    EXPECT_TRUE(log.Has(LogLevel::Error, "File object not present: " + Dir() + ".cpu-0.json"));
    EXPECT_EQ(ReadFile(tmp / "cpu-0.json"), "first");

    // A regular file where the link belongs is left alone; the report still lands.
    fs::remove(tmp / "cpu.json");
    WriteFile(tmp / "cpu.json", "operator's file");
    ASSERT_TRUE(Store(*roller, "third"));
    EXPECT_EQ(ReadFile(tmp / "cpu-1.json"), "third");
    EXPECT_EQ(ReadFile(tmp / "cpu.json"), "operator's file");
    EXPECT_EQ(Entries(),
              (std::vector<std::string>{".cpu-2.json", "cpu-0.json", "cpu-1.json", "cpu.json"}));

    // The first report of a name lists the directory; a listing failure propagates.
    faults.failList = true;
    auto other = Roller("mem");
    EXPECT_THROW(Store(*other, "x"), Pelinor::IOException);
}

}  // namespace
