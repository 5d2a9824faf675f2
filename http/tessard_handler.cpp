#include "http/tessard_handler.h"

#include <mutex>

#include "platform/base/exceptions.h"

namespace Tessard {

using Pelinor::Ref;
using Pelinor::Http::ResponseCode;
using Pelinor::Service::Log;
using Pelinor::Service::Logger;
using Pelinor::Service::LogLevel;

namespace {
constexpr const char* kLockName = "tessard-handler-excl-lock";
constexpr uint32_t kLockRank = 0xff000000;
constexpr const char* kContentType = "application/json";
constexpr int32_t kMaxReports = 3;
// Jobs waiting on one name past which its queue says it has a backlog.
constexpr int32_t kBacklogWarning = 16;
}  // namespace

TessardHandler::TessardHandler(const std::string& reportDirectory, ReportOutcomeObserver observer,
                               std::shared_ptr<const WriterPolicy> writers)
    : RequestHandlerMixin(Logger::sDefaultLogger),
      exclusiveLock(Pelinor::ExclLock::Create(kLockName, kLockRank)),
      logger(Logger::CreateLogger(Logger::sDefaultLogger, "TessardHandler")),
      reportDirectory(reportDirectory),
      observer(std::move(observer)),
      writers(std::move(writers)) {
    if (!exclusiveLock) Pelinor::Panic("Cannot create the lock %1", kLockName);
    Log(logger, LogLevel::Info, "Tessard handler initialized");
}

TessardHandler::~TessardHandler() = default;

void TessardHandler::HandlePost(const Ref<Pelinor::Http::Request>& request,
                                const Ref<Pelinor::Http::Response>& response) {
    std::string contentType;
    request->GetContentType(contentType);
    if (contentType != kContentType) {
        Log(logger, LogLevel::Error, "Unsupported content type received %1", contentType);
        response->Answer(ResponseCode::BadRequest);
        return;
    }
    std::string url = request->GetUrl();
    if (url.empty() || url == "/") {
        Log(logger, LogLevel::Error, "URL does not contain report name");
        response->Answer(ResponseCode::BadRequest);
        return;
    }
    auto slash = url.rfind('/');
    std::string reportName = slash == std::string::npos ? url : url.substr(slash + 1);
    const std::optional<uint32_t> writer = request->GetClientUid();
    auto refuse = [&](ResponseCode code) {
        Tell(observer, {reportName, code.code, 0, writer});
        response->Answer(code);
    };
    int64_t contentLength = 0;
    if (!request->GetContentLength(contentLength)) {
        Log(logger, LogLevel::Error, "Report length header required");
        refuse(ResponseCode::LengthRequired);
        return;
    }
    if (contentLength > kMaxReportSize) {
        Log(logger, LogLevel::Error, "Report too large: %1", contentLength);
        refuse(ResponseCode::RequestEntityTooLarge);
        return;
    }
    if (writers && !writers->Allows(writer, reportName)) {
        Log(logger, LogLevel::Warning, "Report %1 refused: %2 may not write it", reportName,
            DescribeWriter(writer));
        refuse(ResponseCode::Forbidden);
        return;
    }
    Log(logger, LogLevel::Verbose, "Report Name: %1", url);
    if (logger->IsEnabled(LogLevel::Verbose))
        Log(logger, LogLevel::Verbose, "Report %1 from %2", reportName, DescribeWriter(writer));
    if (logger->IsEnabled(LogLevel::Info))
        Log(logger, LogLevel::Info, "Report Path: %1", reportDirectory + reportName);

    const ReportEntry* entry = reportRegistry.Find(reportName);
    bool created = false;
    if (entry == nullptr) {
        std::lock_guard guard(*exclusiveLock);
        // Another request of the name may have made it meanwhile.
        entry = reportRegistry.Find(reportName);
        if (entry == nullptr) {
            Ref<ReportRoller> roller;
            try {
                roller = Pelinor::MakeRef<ReportRoller>(reportDirectory, reportName, kMaxReports,
                                                        logger);
            } catch (const Pelinor::Exception& e) {
                Log(logger, LogLevel::Error, "Error opening directory %1: %2", reportDirectory,
                    e.what());
                refuse(ResponseCode::InternalServerError);
                return;
            }
            Ref<Pelinor::System::WorkQueue> workQueue;
            Pelinor::System::GetThreadPool().CreateWorkQueue(
                {"work-queue-" + reportName, kBacklogWarning}, workQueue);
            auto target =
                Pelinor::MakeRef<ReportTarget>(reportName, std::move(roller), logger, observer);
            entry = &reportRegistry.Add(reportName, {std::move(target), std::move(workQueue)});
            created = true;
        }
    }
    Log(logger, LogLevel::Trivia,
        created ? "Created report rotation and workqueue object for report name: %1"
                : "Retrieved report rotation and workqueue object for report name: %1",
        reportName);
    // A body already in memory lets the job run on whichever loop frees the name's queue.
    entry->workQueue->Enqueue(ReportWriteJob{entry->target, request, response, writer},
                              request->BodyInMemory());
}

const TessardHandler::ReportEntry* TessardHandler::Registry::Find(std::string_view name) const {
    const auto& bucket = buckets[std::hash<std::string_view>{}(name) % kBuckets];
    for (const Node* node = bucket.load(std::memory_order_acquire); node != nullptr;
         node = node->next) {
        if (node->name == name) return &node->entry;
    }
    return nullptr;
}

const TessardHandler::ReportEntry& TessardHandler::Registry::Add(std::string name,
                                                                 ReportEntry entry) {
    auto& bucket = buckets[std::hash<std::string_view>{}(name) % kBuckets];
    nodes.push_back(std::make_unique<Node>(
        Node{std::move(name), std::move(entry), bucket.load(std::memory_order_relaxed)}));
    // Published whole: a lookup on another thread sees the node with all it holds.
    bucket.store(nodes.back().get(), std::memory_order_release);
    return nodes.back()->entry;
}

}  // namespace Tessard
