#include "platform/threads/thread_pool.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/base/logging.h"
#include "platform/threads/event_loops.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

constexpr unsigned kMinLoops = 2;

class Loops final : public EventLoops {
  public:
    Loops() {
        size_t count = std::max(kMinLoops, std::thread::hardware_concurrency());
        for (size_t i = 0; i < count; ++i) loops.push_back(std::make_unique<Loop>());
        for (auto& loop : loops) {
            loop->thread = std::thread([context = &loop->context] {
                tCurrent = context;
                Drive(*context);
            });
        }
    }
    ~Loops() override {
        for (auto& loop : loops) loop->guard.reset();
        for (auto& loop : loops) loop->context.stop();
        for (auto& loop : loops) loop->thread.join();
    }

    net::any_io_executor Next() override {
        size_t index = next.fetch_add(1, std::memory_order_relaxed) % loops.size();
        return loops[index]->context.get_executor();
    }
    net::any_io_executor Current() override { return tCurrent ? tCurrent->get_executor() : Next(); }
    bool OnLoopThread() const override { return tCurrent != nullptr; }

  private:
    struct Loop {
        net::io_context context{1};
        net::executor_work_guard<net::io_context::executor_type> guard{context.get_executor()};
        std::thread thread;
    };

    static void Drive(net::io_context& context) {
        for (;;) {
            try {
                context.run();
                return;
            } catch (const std::exception& e) {
                // One failed completion must not take every connection of the loop with it.
                Log(Logger::sDefaultLogger, LogLevel::Error, "Event loop: %1", e.what());
            }
        }
    }

    static thread_local net::io_context* tCurrent;
    std::vector<std::unique_ptr<Loop>> loops;
    std::atomic<size_t> next{0};
};

thread_local net::io_context* Loops::tCurrent = nullptr;

class SerialWorkQueue final : public WorkQueue {
  public:
    explicit SerialWorkQueue(const WorkQueueDesc& desc) : desc(desc) {}

    void Enqueue(Job job) override {
        Waiting item{EventLoops::Get().Current(), std::move(job)};
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
        Start(std::move(item));
    }

    std::string ToString() const override { return "WorkQueue " + desc.name; }

  private:
    struct Waiting {
        net::any_io_executor executor;
        Job job;
    };

    void Start(Waiting item) {
        // Started on the queuing thread's own loop: when that is the current thread, the
        // job runs right here until it first suspends.
        net::co_spawn(item.executor, std::move(item.job),
                      [self = Ref<SerialWorkQueue>(this)](std::exception_ptr failure) {
                          if (failure) self->LogFailure(failure);
                          self->Finish();
                      });
    }

    void Finish() {
        Waiting item;
        {
            std::lock_guard lock(mutex);
            if (waiting.empty()) {
                running = false;
                return;
            }
            item = std::move(waiting.front());
            waiting.pop_front();
        }
        Start(std::move(item));
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

EventLoops& EventLoops::Get() {
    static Loops loops;
    return loops;
}

ThreadPool& GetThreadPool() {
    static LoopThreadPool pool;
    return pool;
}

}  // namespace Pelinor::System
