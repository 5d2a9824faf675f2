#include "platform/threads/thread_pool.h"

#include <boost/asio/co_spawn.hpp>
#include <list>
#include <mutex>

#include "platform/base/logging.h"
#include "platform/threads/event_loops.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

class SerialWorkQueue final : public WorkQueue {
  public:
    explicit SerialWorkQueue(const WorkQueueDesc& desc) : desc(desc) {}

    void Enqueue(Job job, bool anyLoop) override {
        // A loop's own job stays there: taking a turn of the rotation would skew where new
        // connections go, and every job would write a counter that all loops share.
        auto current = EventLoops::Current();
        Waiting item{current ? *current : EventLoops::Get().Next(), std::move(job), anyLoop};
        {
            std::lock_guard lock(mutex);
            if (running) {
                waiting.push_back(std::move(item));
                if (waiting.size() == static_cast<size_t>(desc.backlogWarning) + 1) {
                    Log(Logger::sDefaultLogger, LogLevel::Verbose,
                        "Work queue %1 has %2 jobs waiting", desc.name, waiting.size());
                }
                return;
            }
            running = true;
        }
        Start(std::move(item.job), item.executor);
    }

    std::string ToString() const override { return "WorkQueue " + desc.name; }

  private:
    struct Waiting {
        Executor executor;  // the loop it was queued on
        Job job;
        bool anyLoop = false;
    };

    // On the loop's own thread the job runs right here until it first suspends.
    void Start(Job job, Executor executor) {
        net::co_spawn(executor, std::move(job),
                      [self = Ref<SerialWorkQueue>(this), executor](std::exception_ptr failure) {
                          if (failure) self->LogFailure(failure);
                          self->Finish(executor);
                      });
    }

    // On the loop of the job that ended.
    void Finish(Executor here) {
        Waiting next{here, {}};
        {
            std::lock_guard lock(mutex);
            if (waiting.empty()) {
                running = false;
                return;
            }
            next = std::move(waiting.front());
            waiting.pop_front();
        }
        Start(std::move(next.job), next.anyLoop ? here : next.executor);
    }

    void LogFailure(const std::exception_ptr& failure) const {
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& e) {
            Log(Logger::sDefaultLogger, LogLevel::Error, "A job of work queue %1 failed: %2",
                desc.name, e.what());
        } catch (...) {
            Log(Logger::sDefaultLogger, LogLevel::Error, "A job of work queue %1 failed",
                desc.name);
        }
    }

    const WorkQueueDesc desc;
    std::mutex mutex;  // guards running and waiting
    bool running = false;
    // A list, not a deque: an idle queue holds no memory of its own.
    std::list<Waiting> waiting;
};

class LoopThreadPool final : public ThreadPool {
  public:
    void CreateWorkQueue(const WorkQueueDesc& desc, Ref<WorkQueue>& out) override {
        out = MakeRef<SerialWorkQueue>(desc);
    }
};

}  // namespace

ThreadPool& GetThreadPool() {
    static LoopThreadPool pool;
    return pool;
}

}  // namespace Pelinor::System
