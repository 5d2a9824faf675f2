// The report upload handler: checks each POST and queues its report on the name's
// own work queue.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "http/writer_policy.h"
#include "platform/base/lock.h"
#include "platform/http/http.h"
#include "platform/threads/thread_pool.h"
#include "report/report_outcome.h"
#include "report/report_roller.h"
#include "report/report_write_job.h"

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
        Pelinor::Ref<ReportTarget> target;  // the name's roller, and whom answers are told
        Pelinor::Ref<Pelinor::System::WorkQueue> workQueue;
    };

    // Report name -> entry. Entries are added under the exclusive lock and never removed, so
    // a known name is found without a lock: its reports write nothing all names share.
    class Registry {
      public:
        const ReportEntry* Find(std::string_view name) const;
        const ReportEntry& Add(std::string name, ReportEntry entry);  // under the lock

      private:
        static constexpr size_t kBuckets = 1024;
        struct Node {
            std::string name;
            ReportEntry entry;
            const Node* next;
        };
        std::array<std::atomic<const Node*>, kBuckets> buckets{};
        std::vector<std::unique_ptr<Node>> nodes;  // owns them
    };

    Registry reportRegistry;
    std::unique_ptr<Pelinor::ExclLock> exclusiveLock;  // guards adding to reportRegistry
    Pelinor::Ref<Pelinor::Service::Logger> logger;
    const std::string reportDirectory;
    const ReportOutcomeObserver observer;
    const std::shared_ptr<const WriterPolicy> writers;
};

}  // namespace Tessard
