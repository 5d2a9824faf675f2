// Reports through the handler, its write jobs and the name's ring of files, with in-memory
// requests and real files (faults injected at the file seam).
#include "http/tessard_handler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "report/report_write_job.h"
#include "tests/support/fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace TessardTest;
using Pelinor::MakeRef;
using Pelinor::Service::LogLevel;
using Tessard::kMaxReportSize;

std::string NameError(const std::string& dir, const std::string& name) {
    return "Error opening directory " + dir + ": '" + name +
           "' contains unexpected regex meta characters" + std::string(19, ' ') +
           "(expected regex '[a-zA-Z0-9_.-]+')";
}

struct ReportsTest : testing::Test {
    // What the client receives once the response is released; 0 when it never is.
    int Post(const Ref<FakeRequest>& request, bool clientGone = false) {
        auto response = MakeRef<FakeResponse>(clientGone);
        auto delivered = response->delivered.get_future();
        handler->HandlePost(request, response);
        response = nullptr;
        return delivered.wait_for(5s) == std::future_status::ready ? delivered.get() : 0;
    }
    int Post(const std::string& url, const std::string& body = "{}",
             const std::string& type = "application/json") {
        return Post(MakeRef<FakeRequest>(url, body, type));
    }
    // Starts over on `dir`, as the daemon does after a restart.
    void Restart(const std::string& dir) { handler = MakeRef<Tessard::TessardHandler>(dir); }

    TempDir tmp;
    LogCapture log;
    const std::string dir = tmp.Path() + "/";
    Ref<Tessard::TessardHandler> handler = MakeRef<Tessard::TessardHandler>(dir);
};

TEST_F(ReportsTest, RefusesInTheOrderOfItsChecksAndTheLastUrlSegmentNamesTheReport) {
    for (std::string type :
         {"Application/JSON", "application/json; charset=utf-8", "application/jsonl", ""})
        EXPECT_EQ(Post("/cpu", "{}", type), 400) << type;
    EXPECT_EQ(Post("/", "{}", "text/plain"), 400) << "content type is checked before the URL";
    EXPECT_TRUE(log.Has(LogLevel::Error, "Unsupported content type received text/plain"));

    for (std::string url : {"", "/"}) {
        auto noName = MakeRef<FakeRequest>(url, "{}");
        noName->declaredLength.reset();
        EXPECT_EQ(Post(noName), 400) << "the name is checked before the length";
    }
    EXPECT_TRUE(log.Has(LogLevel::Error, "URL does not contain report name"));

    auto chunked = MakeRef<FakeRequest>("/cpu", "{}");
    chunked->declaredLength.reset();
    EXPECT_EQ(Post(chunked), 411);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report length header required"));

    auto huge = MakeRef<FakeRequest>("/cpu", "{}");
    huge->declaredLength = kMaxReportSize + 1;
    EXPECT_EQ(Post(huge), 413);
    EXPECT_EQ(huge->bytesRead, 0u);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report too large: 1048577"));
    EXPECT_TRUE(ListDir(dir).empty()) << "refusals touch no file";

    // The last URL segment names the report.
    EXPECT_EQ(Post("/a/b/cpu", "1"), 200);
    EXPECT_EQ(Post("cpu", "2"), 200) << "a URL without a slash is the name";
    EXPECT_EQ(ReadFile(dir + "cpu-1.json"), "2");
    for (std::string name : {"a.b", "x_1-Y9"}) {
        EXPECT_EQ(Post("/" + name, name), 200);
        EXPECT_EQ(ReadLink(dir + name + ".json"), name + "-0.json");
    }

    // A name beginning with "." would share files with another name: ".cpu-0.json" is the
    // temporary file of cpu.
    for (std::string url :
         {"/cpu/", "/a+b", "/%2e%2e", "/a b", "/a%2fb", "/caf\xc3\xa9", "/.", "/..", "/.cpu"}) {
        EXPECT_EQ(Post(url), 500) << url;
        EXPECT_TRUE(log.Has(LogLevel::Error, NameError(dir, url.substr(url.rfind('/') + 1))));
    }
    // The name is checked before the directory.
    Restart("/nonexistent/");
    EXPECT_EQ(Post("/a+b"), 500);
    EXPECT_TRUE(log.Has(NameError("/nonexistent/", "a+b")));
}

TEST_F(ReportsTest, BodiesAreStoredWholeUpToTheLimitWhateverTheClientDoes) {
    EXPECT_EQ(Post("/cpu", ""), 200);
    EXPECT_EQ(ReadFile(dir + "cpu-0.json"), "");

    // Bytes that arrive in odd pieces, the job suspended in between, are stored whole.
    const std::string whole(kMaxReportSize, 'a');
    auto trickled = MakeRef<FakeRequest>("/cpu", whole);
    trickled->piece = 333;
    EXPECT_EQ(Post(trickled), 200);
    EXPECT_EQ(ReadFile(dir + "cpu-1.json"), whole);

    // More than declared: the first part is stored, the rest not read.
    auto tooLong = MakeRef<FakeRequest>("/cpu", whole + "b");
    tooLong->declaredLength = kMaxReportSize;
    EXPECT_EQ(Post(tooLong), 413);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report too large, truncating"));
    EXPECT_EQ(ReadFile(dir + "cpu-2.json"), whole);
    EXPECT_EQ(tooLong->bytesRead, kMaxReportSize + 1);

    // Gone before the answer: the report is kept.
    Post(MakeRef<FakeRequest>("/cpu", "kept"), /*clientGone=*/true);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to write to response stream : Broken pipe"));
    EXPECT_EQ(ReadLink(dir + "cpu.json"), "cpu-0.json");
    EXPECT_EQ(ReadFile(dir + "cpu-0.json"), "kept");

    // Gone mid-body, or the file cannot be flushed: nothing becomes visible.
    FaultyFactory faults;
    auto broken = MakeRef<FakeRequest>("/cpu", std::string(4096, 'z'));
    broken->piece = 100;
    broken->failAfter = 1000;
    EXPECT_EQ(Post(broken), 500);
    faults.failClose = true;
    EXPECT_EQ(Post("/cpu", "unflushed"), 500);
    EXPECT_TRUE(log.WaitFor(LogLevel::Error,
                            "A job of work queue work-queue-cpu failed: injected close failure"));
    EXPECT_EQ(ReadLink(dir + "cpu.json"), "cpu-0.json");
    EXPECT_EQ(ListDir(dir), (std::set<std::string>{".cpu-1.json", ".cpu-2.json", "cpu-0.json",
                                                   "cpu-1.json", "cpu-2.json", "cpu.json"}));
}

TEST_F(ReportsTest, RestartContinuesFromTheHighestRegularReportFile) {
    struct Case {
        std::vector<std::string> files;
        std::string name, nextFile;
    } cases[] = {
        {{"n-0.json", "n-1.json"}, "n", "n-2.json"},
        // After four reports slot 0 is the newest, yet the highest number wins.
        {{"n-0.json", "n-1.json", "n-2.json"}, "n", "n-0.json"},
        {{"n-7.json", "n-1.json"}, "n", "n-0.json"},  // out of the ring: start over
        {{"n-12.json", ".n-2.json", "n-x.json", "m-2.json"}, "n", "n-0.json"},
        {{"axb-1.json"}, "a.b", "a.b-2.json"},  // the name's "." matches any character
        {{"n-y-1.json", "n-1.json.tmp"}, "n", "n-0.json"},
        {{"n-0.json", "n-12.json"}, "n", "n-1.json"},   // not a slot at all
        {{"n-1.json/", "n-0.json@"}, "n", "n-0.json"},  // a directory and a link do not count
    };
    for (const auto& c : cases) {
        TempDir ring;
        for (std::string f : c.files) {
            if (f.ends_with('/'))
                fs::create_directory(ring / f);
            else if (f.ends_with('@')) {
                WriteFile(ring / "target", "x");
                fs::create_symlink(ring / "target", ring / f.substr(0, f.size() - 1));
            } else
                WriteFile(ring / f, "old");
        }
        Restart(ring.Path() + "/");
        ASSERT_EQ(Post("/" + c.name, "new"), 200);
        EXPECT_EQ(ReadFile(ring / c.nextFile), "new") << c.nextFile;
        EXPECT_EQ(ReadLink(ring / (c.name + ".json")), c.nextFile);
    }
}

TEST_F(ReportsTest, FailuresKeepTheRingMovingAndTheNewestVisible) {
    FaultyFactory faults;
    ASSERT_EQ(Post("/cpu", "first"), 200);
    // A failed rename leaves slot 1 hidden; a temporary file gone before its rename
    // leaves slot 2 unwritten.
    faults.failRename = true;
    EXPECT_EQ(Post("/cpu", "second"), 200);
    faults.failRename = false;
    EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to rename the file to " + dir + "cpu-1.json"));
    EXPECT_EQ(ReadFile(dir + ".cpu-1.json"), "second");
    faults.vanish = true;
    EXPECT_EQ(Post("/cpu", "lost"), 200);
    faults.vanish = false;
    EXPECT_TRUE(log.Has(LogLevel::Error, "File object not present: " + dir + ".cpu-2.json"));
    EXPECT_EQ(ReadLink(dir + "cpu.json"), "cpu-0.json");

    // A regular file where the link belongs is left alone; the report still lands.
    fs::remove(dir + "cpu.json");
    WriteFile(dir + "cpu.json", "operator's file");
    ASSERT_EQ(Post("/cpu", "third"), 200);
    EXPECT_EQ(ReadFile(dir + "cpu-0.json"), "third");
    EXPECT_EQ(ReadFile(dir + "cpu.json"), "operator's file");
    EXPECT_EQ(ListDir(dir), (std::set<std::string>{".cpu-1.json", "cpu-0.json", "cpu.json"}));

    // The first report of a name lists the directory; when that fails, nothing is written.
    faults.failList = true;
    EXPECT_EQ(Post("/mem", "x"), 500);
    EXPECT_TRUE(log.WaitFor(LogLevel::Error,
                            "A job of work queue work-queue-mem failed: injected listing failure"));
    EXPECT_FALSE(fs::exists(dir + ".mem-0.json"));
}

TEST_F(ReportsTest, ADirectoryThatIsMissingOrGoneIsTriedAgain) {
    fs::create_directory(tmp / "real");
    fs::create_directory_symlink(tmp / "real", tmp / "link");
    WriteFile(tmp / "plain", "x");
    for (std::string bad : {tmp / "plain/", tmp / "reports/"}) {
        Restart(bad);
        EXPECT_EQ(Post("/cpu"), 500);
        EXPECT_TRUE(log.Has(LogLevel::Error, "Invalid directory: " + bad));
        EXPECT_TRUE(log.Has(LogLevel::Error, "Error opening directory " + bad + ": '" + bad +
                                                 "' is not a directory"));
    }
    fs::create_directory(tmp / "reports");
    EXPECT_EQ(Post("/cpu"), 200) << "a refused name is tried again";
    EXPECT_EQ(ReadFile(tmp / "reports/cpu-0.json"), "{}");

    // Removed while running: the name's ring exists, its next file cannot be opened.
    fs::remove_all(tmp / "reports");
    EXPECT_EQ(Post("/cpu"), 500);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Creation of report failed"));
    EXPECT_TRUE(log.Has(LogLevel::Error,
                        "Caught No such file or directory while attempting to "
                        "create file: " +
                            tmp / "reports/.cpu-1.json"));
    fs::create_directory(tmp / "reports");
    EXPECT_EQ(Post("/cpu"), 200);
    EXPECT_EQ(ReadFile(tmp / "reports/cpu-2.json"), "{}") << "the failed write used slot 1";

    Restart(tmp / "link/");
    EXPECT_EQ(Post("/cpu"), 200) << "a link to a directory is a directory";
}

}  // namespace
