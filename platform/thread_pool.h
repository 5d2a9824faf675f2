// The thread pool and its work queues.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/object.h"

namespace Pelinor::System {

struct WorkQueueDesc {
    std::string name;
    // Pending jobs past which the queue reports a backlog (at verbose, once per crossing).
    int32_t backlogWarning = 16;
    // Logger for the queue's own lines; empty means the default logger.
    std::string loggerName;
    // Jobs that may run at once: 1 runs them one at a time, in the order queued.
    int32_t concurrency = 1;
    // Kept alive as long as the queue.
    Ref<ObjectImpl> owner;
};

class WorkQueue : public ObjectImpl {
  public:
    // Copies the job and runs it later on a pool thread. A job that throws is
    // logged at error and destroyed; the queue carries on.
    virtual void Enqueue(const std::function<void()>& job) = 0;
};

class ThreadPool {
  public:
    virtual ~ThreadPool() = default;
    virtual void CreateWorkQueue(const WorkQueueDesc& desc, Ref<WorkQueue>& out) = 0;
};

ThreadPool& GetThreadPool();

}  // namespace Pelinor::System
