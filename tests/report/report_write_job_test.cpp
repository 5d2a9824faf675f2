#include "report/report_write_job.h"

#include <gtest/gtest.h>

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
using Tessard::kMaxReportSize;
using TessardTest::FakeRequest;
using TessardTest::FakeResponse;
using TessardTest::ReadFile;
using TessardTest::ResponseOutcome;

class WriteReportTest : public testing::Test {
  protected:
    // Runs one job and returns what the client receives once the response is released.
    std::shared_ptr<ResponseOutcome> Post(const Ref<FakeRequest>& request,
                                          bool clientGone = false) {
        auto outcome = std::make_shared<ResponseOutcome>();
        TessardTest::RunToEnd(Tessard::ReportWriteJob{
            logger, {}, request, MakeRef<FakeResponse>(outcome, clientGone), roller});
        return outcome;
    }
    Ref<FakeRequest> Body(const std::string& body) { return MakeRef<FakeRequest>("/cpu", body); }

    TessardTest::TempDir tmp;
    TessardTest::LogCapture log;
    Ref<Logger> logger = Logger::CreateLogger(Logger::sDefaultLogger, "TessardHandler");
    Ref<Tessard::ReportRoller> roller =
        MakeRef<Tessard::ReportRoller>(tmp.Path() + "/", "cpu", 3, logger);
};

TEST_F(WriteReportTest, StoresBodiesUpToTheLimitAndTruncatesBeyond) {
    auto empty = Post(Body(""));
    EXPECT_EQ(empty->deliveredCode, 200);
    EXPECT_EQ(empty->sends, 1);
    EXPECT_EQ(ReadFile(tmp / "cpu-0.json"), "");

    // Bytes that arrive in odd pieces, the job suspended in between, are stored whole.
    std::string whole(kMaxReportSize, 'a');
    auto trickled = Body(whole);
    trickled->InPiecesOf(333);
    EXPECT_EQ(Post(trickled)->deliveredCode, 200);
    EXPECT_EQ(ReadFile(tmp / "cpu-1.json"), whole);

    auto tooLong = Body(whole + "b");
    auto truncated = Post(tooLong);
    EXPECT_EQ(truncated->deliveredCode, 413);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Report too large, truncating"));
    EXPECT_EQ(ReadFile(tmp / "cpu-2.json"), whole) << "the first part is stored";
    EXPECT_EQ(TessardTest::ReadLink(tmp / "cpu.json"), "cpu-2.json");
    EXPECT_EQ(tooLong->bytesRead, kMaxReportSize + 1) << "the rest of the body is not read";
}

TEST_F(WriteReportTest, FailuresAnswerWhatTheClientMustSee) {
    TessardTest::FaultyFactory faults;
    auto gone = Post(Body("kept"), /*clientGone=*/true);
    EXPECT_TRUE(log.Has(LogLevel::Error, "Failed to write to response stream : Broken pipe"));
    EXPECT_EQ(ReadFile(tmp / "cpu-0.json"), "kept");
    EXPECT_EQ(TessardTest::ReadLink(tmp / "cpu.json"), "cpu-0.json");

    // A client that vanishes mid-body: nothing becomes visible, the job ends by exception.
    auto broken = MakeRef<FakeRequest>("/cpu", std::string(4096, 'z'));
    broken->InPiecesOf(100).FailAfter(1000);
    std::shared_ptr<ResponseOutcome> outcome;
    EXPECT_THROW(outcome = Post(broken), Pelinor::IOException);
    EXPECT_EQ(ReadFile(tmp / "cpu-0.json"), "kept");
    EXPECT_EQ(TessardTest::ReadLink(tmp / "cpu.json"), "cpu-0.json");
    EXPECT_FALSE(fs::exists(tmp / "cpu-1.json"));

    faults.failClose = true;
    EXPECT_THROW(Post(Body("unflushed")), Pelinor::IOException);
    EXPECT_FALSE(fs::exists(tmp / "cpu-2.json"));
}

}  // namespace
