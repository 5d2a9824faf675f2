// Stores one posted report and answers its request.
#pragma once

#include <cstdint>

#include "platform/base/logging.h"
#include "platform/base/task.h"
#include "platform/http/http.h"
#include "report/report_outcome.h"
#include "report/report_roller.h"

namespace Tessard {

constexpr int32_t kReadChunkSize = 512;
constexpr int64_t kMaxReportSize = 1048576;

// Copies the body into the roller's next slot (at most kMaxReportSize bytes), puts it
// in place and answers: 200, 413 for an over-long body, 500 when no file could be opened.
// Suspends, holding no thread, while it waits for body bytes.
Pelinor::Task<void> WriteReport(Pelinor::Ref<Pelinor::Http::Request> request,
                                Pelinor::Ref<Pelinor::Http::Response> response,
                                Pelinor::Ref<ReportRoller> roller,
                                Pelinor::Ref<Pelinor::Service::Logger> logger,
                                ReportOutcomeObserver observer, std::string reportName,
                                std::optional<uint32_t> writer);

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
    std::optional<uint32_t> writer = {};

    Pelinor::Task<void> operator()() const {
        return WriteReport(request, response, roller, logger, observer, reportName, writer);
    }
};

}  // namespace Tessard
