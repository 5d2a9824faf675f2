#include "platform/thread_pool.h"

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>

#include "platform/logging.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

// Jobs may wait on slow clients for a while, so the pool is wider than the machine.
constexpr unsigned kMinThreads = 16;

class AsioWorkQueue : public WorkQueue {
  public:
    AsioWorkQueue(net::thread_pool& pool, const WorkQueueDesc& desc)
        : desc(desc),
          strand(net::make_strand(pool.get_executor())),
          pool(pool),
          logger(desc.loggerName.empty()
                     ? Logger::sDefaultLogger
                     : Logger::CreateLogger(Logger::sDefaultLogger, desc.loggerName)) {}

    void Enqueue(const std::function<void()>& job) override {
        int32_t waiting = pending.fetch_add(1, std::memory_order_relaxed) + 1;
        if (waiting == desc.backlogWarning + 1) {
            Log(logger, LogLevel::Verbose, "Work queue %1 has %2 jobs waiting", desc.name, waiting);
        }
        auto item = [self = Ref<AsioWorkQueue>(this), job] { self->Run(job); };
        if (desc.concurrency == 1) {
            net::post(strand, std::move(item));
        } else {
            net::post(pool, std::move(item));
        }
    }

    std::string ToString() const override { return "WorkQueue " + desc.name; }

  private:
    void Run(const std::function<void()>& job) {
        pending.fetch_sub(1, std::memory_order_relaxed);
        try {
            job();
        } catch (const std::exception& e) {
            Log(logger, LogLevel::Error, "A job of work queue %1 failed: %2", desc.name, e.what());
        } catch (...) {
            Log(logger, LogLevel::Error, "A job of work queue %1 failed", desc.name);
        }
    }

    const WorkQueueDesc desc;
    net::strand<net::thread_pool::executor_type> strand;
    net::thread_pool& pool;
    Ref<Logger> logger;
    std::atomic<int32_t> pending{0};
};

class AsioThreadPool : public ThreadPool {
  public:
    AsioThreadPool() : pool(std::max(kMinThreads, 2 * std::thread::hardware_concurrency())) {}
    ~AsioThreadPool() override { pool.join(); }

    void CreateWorkQueue(const WorkQueueDesc& desc, Ref<WorkQueue>& out) override {
        out = MakeRef<AsioWorkQueue>(pool, desc);
    }

  private:
    net::thread_pool pool;
};

}  // namespace

ThreadPool& GetThreadPool() {
    static AsioThreadPool pool;
    return pool;
}

}  // namespace Pelinor::System
