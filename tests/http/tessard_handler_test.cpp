#include "http/tessard_handler.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "report/report_write_job.h"
#include "tests/support/fakes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::Service::LogLevel;
using TessardTest::FakeRequest;
using TessardTest::FakeResponse;
using TessardTest::ResponseOutcome;

class TessardHandlerTest : public testing::Test {
  protected:
    // Posts and waits until the response is released (answered at once or by the job).
    std::shared_ptr<ResponseOutcome> Post(const Ref<FakeRequest>& request) {
        auto outcome = std::make_shared<ResponseOutcome>();
        handler->HandlePost(request, MakeRef<FakeResponse>(outcome));
        EXPECT_TRUE(outcome->WaitReleased());
        return outcome;
    }
    int Status(const std::string& url, const std::string& body = "{}",
               const std::string& type = "application/json") {
        return Post(MakeRef<FakeRequest>(url, body, type))->deliveredCode.value_or(0);
    }
    std::string Dir() const { return tmp.Path() + "/"; }

    TessardTest::TempDir tmp;
    TessardTest::LogCapture log;
    Ref<Tessard::TessardHandler> handler = MakeRef<Tessard::TessardHandler>(Dir());
};

TEST_F(TessardHandlerTest, RefusesInTheOrderOfItsChecks) {
    for (std::string type :
         {"Application/JSON", "application/json; charset=utf-8", "application/jsonl", ""})
        EXPECT_EQ(Status("/cpu", "{}", type), 400) << type;
    EXPECT_EQ(Status("/", "{}", "text/plain"), 400) << "content type is checked before the URL";
    EXPECT_TRUE(log.Has(LogLevel::Error, "Unsupported content type received text/plain"));

    for (std::string url : {"", "/"}) {
        auto noName = MakeRef<FakeRequest>(url, "{}");
        noName->WithoutLength();
        EXPECT_EQ(Post(noName)->deliveredCode, 400) << "the name is checked before the length";
    }
    EXPECT_TRUE(log.Has(LogLevel::Error, "URL does not contain report name"));
    EXPECT_FALSE(log.Has("Report length header required"));

    auto chunked = MakeRef<FakeRequest>("/cpu", "{}");
    chunked->WithoutLength();
    EXPECT_EQ(Post(chunked)->deliveredCode, 411);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report length header required"));

    auto huge = MakeRef<FakeRequest>("/cpu", "{}");
    huge->WithDeclaredLength(Tessard::kMaxReportSize + 1);
    EXPECT_EQ(Post(huge)->deliveredCode, 413);
    EXPECT_EQ(huge->bytesRead, 0u);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report too large: 1048577"));

    auto limit = MakeRef<FakeRequest>("/cpu", std::string(Tessard::kMaxReportSize, 'x'));
    EXPECT_EQ(Post(limit)->deliveredCode, 200);
    EXPECT_EQ(fs::file_size(tmp / "cpu-0.json"), Tessard::kMaxReportSize);
}

TEST_F(TessardHandlerTest, TheLastUrlSegmentNamesTheReport) {
    EXPECT_EQ(Status("/a/b/cpu", "1"), 200);
    EXPECT_EQ(Status("cpu", "2"), 200) << "a URL without a slash is the name";
    EXPECT_EQ(TessardTest::ReadFile(tmp / "cpu-1.json"), "2");

    // A name beginning with "." would share files with another name: ".cpu-0.json" is the
    // temporary file of cpu.
    for (std::string url : {"/cpu/", "/a+b", "/%2e%2e", "/a%20b", "/a%2fb", "/.", "/..", "/.cpu"}) {
        std::string name = url.substr(url.rfind('/') + 1);
        EXPECT_EQ(Status(url), 500) << url;
        EXPECT_TRUE(log.Has(LogLevel::Error, "Error opening directory " + Dir() + ": '" + name +
                                                 "' contains unexpected regex meta characters" +
                                                 std::string(19, ' ') +
                                                 "(expected regex '[a-zA-Z0-9_.-]+')"));
    }
    EXPECT_EQ(Status("/a.b", "a.b"), 200);
    EXPECT_EQ(TessardTest::ReadLink(tmp / "a.b.json"), "a.b-0.json");
}

TEST(TessardHandlerDirectory, ARefusedRollerIsTriedAgainOnTheNextRequest) {
    TessardTest::TempDir tmp;
    TessardTest::LogCapture log;
    std::string dir = tmp / "reports/";
    auto handler = MakeRef<Tessard::TessardHandler>(dir);
    auto post = [&] {
        auto outcome = std::make_shared<ResponseOutcome>();
        handler->HandlePost(MakeRef<FakeRequest>("/cpu", "{}"), MakeRef<FakeResponse>(outcome));
        EXPECT_TRUE(outcome->WaitReleased());
        return outcome->deliveredCode.value_or(0);
    };
    EXPECT_EQ(post(), 500);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Invalid directory: " + dir));
    EXPECT_TRUE(log.Has(LogLevel::Error,
                        "Error opening directory " + dir + ": '" + dir + "' is not a directory"));
    fs::create_directory(dir);
    EXPECT_EQ(post(), 200);
    EXPECT_EQ(TessardTest::ReadFile(dir + "cpu-0.json"), "{}");

    // Removed while running: the name's roller exists, its next file cannot be opened.
    fs::remove_all(dir);
    EXPECT_EQ(post(), 500);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Creation of report failed"));
    fs::create_directory(dir);
    EXPECT_EQ(post(), 200);
    EXPECT_EQ(TessardTest::ReadFile(dir + "cpu-2.json"), "{}") << "the failed write used slot 1";
}

}  // namespace
