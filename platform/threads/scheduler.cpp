#include "platform/threads/scheduler.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/base/exceptions.h"
#include "platform/base/format.h"
#include "platform/base/logging.h"
#include "platform/threads/event_loops.h"
#include "platform/threads/scheduler_loop.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

constexpr const char* kTimeScaleVariable = "TESSARD_TIME_SCALE";
// The clock counts nanoseconds in 64 bits; a century is far beyond any run of the daemon
// and far from overflowing when added to the clock's current time.
constexpr int64_t kLongestDelayUs = int64_t{100} * 365 * 24 * 3600 * 1'000'000;

// One scheduled callback. Cancel and the timer race for it under the lock, so a
// cancelled callback never starts, and its captures go as soon as it is cancelled.
class AsioItem : public ScheduledItem {
  public:
    AsioItem(const ScheduledCallback& callback, const std::shared_ptr<net::io_context>& context)
        : callback(callback), context(context) {}

    void Cancel() override {
        ScheduledCallback dropped;  // destroyed after the lock is released
        {
            std::lock_guard lock(mutex);
            if (state != State::Pending) return;
            state = State::Cancelled;
            dropped.swap(callback);
        }
        // The timer belongs to the scheduler's thread; without this it would stay queued
        // until its deadline. A scheduler already gone has dropped its timers itself.
        if (auto running = context.lock()) {
            net::post(*running, [self = Ref<AsioItem>(this)] {
                if (self->timer != nullptr) self->timer->cancel();
            });
        }
    }

    // Only touched on the scheduler's thread once the wait has started.
    net::steady_timer* timer = nullptr;

    // Hands out the callback unless it was cancelled.
    bool Start(ScheduledCallback& out) {
        std::lock_guard lock(mutex);
        if (state != State::Pending) return false;
        state = State::Started;
        out.swap(callback);
        return true;
    }

    std::string ToString() const override { return "ScheduledItem"; }

  private:
    enum class State { Pending, Started, Cancelled };

    std::mutex mutex;
    State state = State::Pending;
    ScheduledCallback callback;
    const std::weak_ptr<net::io_context> context;
};

class AsioScheduler : public Scheduler {
  public:
    explicit AsioScheduler(int64_t timeScale)
        : timeScale(timeScale),
          context(std::make_shared<net::io_context>()),
          work(net::make_work_guard(*context)),
          thread([this] {
              NameThread("tessard-plugins");
              context->run();
          }) {}

    ~AsioScheduler() override {
        // Pending timers are destroyed with the context, releasing their callbacks unrun.
        context->stop();
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();  // destroyed from one of its own callbacks (exit() in a callback)
        } else {
            thread.join();
        }
    }

    net::io_context& Context() { return *context; }

    void Schedule(const ScheduledCallback& callback, int64_t delayUs,
                  Ref<ScheduledItem>& item) override {
        auto scheduled = MakeRef<AsioItem>(callback, context);
        // Set before the timer starts, so the callback never sees the caller's old item.
        item = scheduled;
        auto delay =
            std::chrono::microseconds(std::clamp<int64_t>(delayUs / timeScale, 0, kLongestDelayUs));
        auto timer = std::make_unique<net::steady_timer>(*context, delay);
        scheduled->timer = timer.get();
        auto& waiting = *timer;
        waiting.async_wait(
            [timer = std::move(timer), scheduled](const boost::system::error_code& error) {
                scheduled->timer = nullptr;  // the timer goes with this handler
                if (!error) Run(*scheduled);
            });
    }

  private:
    static void Run(AsioItem& item) {
        ScheduledCallback callback;
        if (!item.Start(callback)) return;
        try {
            callback(&item);
        } catch (const std::exception& e) {
            Log(Logger::sDefaultLogger, LogLevel::Error, "A scheduled callback failed: %1",
                e.what());
        } catch (...) {
            Log(Logger::sDefaultLogger, LogLevel::Error,
                "A scheduled callback failed with an unknown exception");
        }
    }

    const int64_t timeScale;
    // Shared only so that items can tell whether it still exists.
    const std::shared_ptr<net::io_context> context;
    net::executor_work_guard<net::io_context::executor_type> work;
    std::thread thread;  // last: it runs the members above
};

// The default instance: builds the real scheduler on first use, so that a bad
// $TESSARD_TIME_SCALE throws from a call that start-up handles, not during static
// initialisation.
class RealScheduler : public Scheduler {
  public:
    void Schedule(const ScheduledCallback& callback, int64_t delayUs,
                  Ref<ScheduledItem>& item) override {
        Real().Schedule(callback, delayUs, item);
    }
};

constinit RealScheduler gRealScheduler;

}  // namespace

Scheduler* Scheduler::sInstance = &gRealScheduler;

namespace {
AsioScheduler& RealAsio() {
    static AsioScheduler real(ParseTimeScale(std::getenv(kTimeScaleVariable)));
    return real;
}
}  // namespace

Scheduler& Scheduler::Real() {
    return RealAsio();
}

net::io_context& SchedulerLoop() {
    return RealAsio().Context();
}

std::unique_ptr<Scheduler> Scheduler::Create(int64_t timeScale) {
    if (timeScale < 1) {
        throw InvalidArgumentException(
            Format("The time scale must be positive, not %1", timeScale));
    }
    return std::make_unique<AsioScheduler>(timeScale);
}

int64_t ParseTimeScale(const char* text) {
    if (text == nullptr) return 1;
    std::string_view digits(text);
    int64_t value = 0;
    if (!ParseWhole(digits, value) || value < 1) {
        throw InvalidArgumentException(
            Format("%1 must be a positive integer, not '%2'", kTimeScaleVariable, digits));
    }
    return value;
}

}  // namespace Pelinor::System
