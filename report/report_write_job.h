// Stores one posted report and answers its request.
#pragma once

#include <cstdint>

#include "platform/http.h"
#include "platform/logging.h"
#include "report/report_outcome.h"
#include "report/report_roller.h"

namespace Tessard {

constexpr int32_t kReadChunkSize = 512;
constexpr int64_t kMaxReportSize = 1048576;

// Copies the body into the roller's next slot (at most kMaxReportSize bytes), puts it
// in place and answers: 200, 413 for an over-long body, 500 when no file could be opened.
void WriteReport(const Pelinor::Ref<Pelinor::Http::Request>& request,
                 const Pelinor::Ref<Pelinor::Http::Response>& response,
                 const Pelinor::Ref<ReportRoller>& roller,
                 const Pelinor::Ref<Pelinor::Service::Logger>& logger,
                 const ReportOutcomeObserver& observer = {}, const std::string& reportName = {});

// The queued work item. It keeps everything it touches alive until the queue destroys
// it, and releases the references in the order roller, response, request, handler.
struct ReportWriteJob {
    Pelinor::Ref<Pelinor::Service::Logger> logger;
    Pelinor::Ref<Pelinor::ObjectImpl> handler;
    Pelinor::Ref<Pelinor::Http::Request> request;
    Pelinor::Ref<Pelinor::Http::Response> response;
    Pelinor::Ref<ReportRoller> roller;
    ReportOutcomeObserver observer = {};
    std::string reportName = {};

    void operator()() const {
        WriteReport(request, response, roller, logger, observer, reportName);
    }
};

}  // namespace Tessard
