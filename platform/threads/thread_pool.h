// The serial work queues that run jobs on the event loops.
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

// Runs its jobs one at a time, in the order queued. A job whose turn has come starts at once on
// the queuing thread, with no hand-off. A job that waited starts on the loop it was queued on,
// unless it may run on any loop (`anyLoop`: it needs nothing of that loop): then on the thread
// that finished the job before it, so a busy queue does not hop between loops. A job that
// suspends holds no thread, only its turn. A job that throws is logged at error; the queue
// carries on.
class WorkQueue : public ObjectImpl {
  public:
    virtual void Enqueue(Job job, bool anyLoop = false) = 0;
};

class ThreadPool {
  public:
    virtual ~ThreadPool() = default;
    virtual void CreateWorkQueue(const WorkQueueDesc& desc, Ref<WorkQueue>& out) = 0;
};

ThreadPool& GetThreadPool();

}  // namespace Pelinor::System
