// The report upload handler: checks each POST and queues its report on the name's
// own work queue.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "http/writer_policy.h"
#include "platform/base/lock.h"
#include "platform/http/http.h"
#include "platform/threads/thread_pool.h"
#include "report/report_outcome.h"
#include "report/report_roller.h"

namespace Tessard {

class TessardHandler : public Pelinor::Http::RequestHandlerMixin {
  public:
    // Without `writers` everyone may write every name.
    explicit TessardHandler(const std::string& reportDirectory, ReportOutcomeObserver observer = {},
                            std::shared_ptr<const WriterPolicy> writers = {});
    ~TessardHandler() override;

    void HandlePost(const Pelinor::Ref<Pelinor::Http::Request>& request,
                    const Pelinor::Ref<Pelinor::Http::Response>& response) override;

  private:
    struct ReportEntry {
        Pelinor::Ref<ReportRoller> roller;
        Pelinor::Ref<Pelinor::System::WorkQueue> workQueue;
    };

    // Entries are added, never removed, for the handler's life.
    std::unordered_map<std::string, ReportEntry> reportRegistry;
    std::unique_ptr<Pelinor::ExclLock> exclusiveLock;  // guards reportRegistry
    Pelinor::Ref<Pelinor::Service::Logger> logger;
    const std::string reportDirectory;
    const ReportOutcomeObserver observer;
    const std::shared_ptr<const WriterPolicy> writers;
};

}  // namespace Tessard
