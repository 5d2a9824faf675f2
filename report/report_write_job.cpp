#include "report/report_write_job.h"

#include "platform/base/exceptions.h"

namespace Tessard {

using Pelinor::Ref;
using Pelinor::Http::ResponseCode;
using Pelinor::Service::Log;
using Pelinor::Service::LogLevel;

Pelinor::Task<void> WriteReport(Ref<ReportTarget> target, Ref<Pelinor::Http::Request> request,
                                Ref<Pelinor::Http::Response> response,
                                std::optional<uint32_t> writer) {
    const Ref<Pelinor::Service::Logger>& logger = target->logger;
    ReportRoller& roller = *target->roller;
    Ref<Pelinor::System::OutputStream> stream;
    Ref<Pelinor::System::File> file;
    if (!roller.CreateTempFile(stream, file)) {
        Log(logger, LogLevel::Error, "Creation of report failed");
        // Not sent here: the response goes out with this code once it is released.
        response->SetResponseCode(ResponseCode::InternalServerError);
        Tell(target->observer, {target->name, ResponseCode::InternalServerError.code, 0, writer});
        co_return;
    }

    ResponseCode code = ResponseCode::Ok;
    int32_t byteCount = 0;
    char buffer[kReadChunkSize];
    for (;;) {
        // What has arrived is taken at once; only when nothing has does the job wait.
        int64_t n = request->ReadAvailable(buffer, sizeof buffer);
        if (n == 0) n = co_await request->Read(buffer, sizeof buffer);
        if (n == -1) {
            Log(logger, LogLevel::Trivia, "Read end of HTTP body");
            break;
        }
        byteCount += static_cast<int32_t>(n);
        if (byteCount > kMaxReportSize) {
            Log(logger, LogLevel::Error, "Report too large, truncating");
            code = ResponseCode::RequestEntityTooLarge;
            break;
        }
        stream->Write(buffer, static_cast<size_t>(n));
    }
    stream->Close();
    roller.Rotate(file);

    response->SetResponseCode(code);
    Tell(target->observer,
         {target->name, code.code, code == ResponseCode::Ok ? byteCount : 0, writer});
    try {
        response->Send();
    } catch (const Pelinor::IOException& e) {
        Log(logger, LogLevel::Error, "Failed to write to response stream : %1", e.what());
    }
}

}  // namespace Tessard
