// Stores one posted report and answers its request.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/logging.h"
#include "platform/base/task.h"
#include "platform/http/http.h"
#include "report/report_outcome.h"
#include "report/report_roller.h"

namespace Tessard {

constexpr int32_t kReadChunkSize = 512;
constexpr int64_t kMaxReportSize = 1048576;

// What every report of one name shares: its ring, and whom the answers are told. Made with
// the name's first report; a job holds it, so nothing shared by all names is touched per report.
struct ReportTarget : Pelinor::ObjectImpl {
    ReportTarget(std::string name, Pelinor::Ref<ReportRoller> roller,
                 Pelinor::Ref<Pelinor::Service::Logger> logger, ReportOutcomeObserver observer)
        : name(std::move(name)),
          roller(std::move(roller)),
          logger(std::move(logger)),
          observer(std::move(observer)) {}

    const std::string name;
    const Pelinor::Ref<ReportRoller> roller;
    const Pelinor::Ref<Pelinor::Service::Logger> logger;
    const ReportOutcomeObserver observer;
};

// Copies the body into the roller's next slot (at most kMaxReportSize bytes), puts it
// in place and answers: 200, 413 for an over-long body, 500 when no file could be opened.
// Suspends, holding no thread, while it waits for body bytes.
Pelinor::Task<void> WriteReport(Pelinor::Ref<ReportTarget> target,
                                Pelinor::Ref<Pelinor::Http::Request> request,
                                Pelinor::Ref<Pelinor::Http::Response> response,
                                std::optional<uint32_t> writer);

// The queued work item. It keeps everything it touches alive until the queue destroys it,
// and releases the references in the order response, request, target.
struct ReportWriteJob {
    Pelinor::Ref<ReportTarget> target;
    Pelinor::Ref<Pelinor::Http::Request> request;
    Pelinor::Ref<Pelinor::Http::Response> response;
    std::optional<uint32_t> writer = {};

    // Run once: the job hands its references to the coroutine.
    Pelinor::Task<void> operator()() {
        return WriteReport(std::move(target), std::move(request), std::move(response), writer);
    }
};

}  // namespace Tessard
