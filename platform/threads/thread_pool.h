// The event loops and the serial work queues that run jobs on them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/base/object.h"
#include "platform/base/task.h"

namespace Pelinor::System {

using Job = std::function<Task<void>()>;

struct WorkQueueDesc {
    std::string name;
    // Waiting jobs past which the queue says it has a backlog (at verbose, once per crossing).
    int32_t backlogWarning = 16;
};

// Runs its jobs one at a time, in the order queued, on the event loop of the thread that
// queued each (the connection's, for a report): a job whose turn has come starts at once,
// on the queuing thread, with no hand-off. A job that suspends holds no thread, only its
// turn. A job that throws is logged at error; the queue carries on.
class WorkQueue : public ObjectImpl {
  public:
    virtual void Enqueue(Job job) = 0;
};

class ThreadPool {
  public:
    virtual ~ThreadPool() = default;
    virtual void CreateWorkQueue(const WorkQueueDesc& desc, Ref<WorkQueue>& out) = 0;
};

ThreadPool& GetThreadPool();

}  // namespace Pelinor::System
