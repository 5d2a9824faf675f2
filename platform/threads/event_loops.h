// The daemon's event loops: one thread each. Connections and the jobs they start live on one
// loop for their whole life; a job may move to another loop's thread only while it needs
// nothing of its connection.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "platform/base/task.h"

namespace Pelinor::System {

// Loops when the configuration says nothing: a host daemon needs no thread per core of a
// large host.
constexpr size_t kDefaultLoops = 4;
// Fewer only when configured: one loop busy with a slow file system still leaves another.
constexpr size_t kMinLoops = 2;

class EventLoops {
  public:
    // Starts the loops at the first call: as many as the CPUs the daemon may use (its affinity
    // mask and its cgroup's CPU quota), at least kMinLoops, at most `limit`. Later calls get the
    // loops the first one started, whatever their limit.
    static EventLoops& Get(size_t limit = kDefaultLoops);
    ~EventLoops();
    EventLoops(const EventLoops&) = delete;
    EventLoops& operator=(const EventLoops&) = delete;

    size_t Size() const { return loops.size(); }
    Executor At(size_t index) const;
    // The loops in turn, for new connections.
    size_t NextIndex() { return next.fetch_add(1, std::memory_order_relaxed) % loops.size(); }
    Executor Next() { return At(NextIndex()); }

    // The calling thread's loop, if it runs one.
    static std::optional<Executor> Current();

  private:
    explicit EventLoops(size_t count);
    struct Loop;
    std::vector<std::unique_ptr<Loop>> loops;
    std::atomic<size_t> next{0};
};

// Makes `context` the calling thread's loop while it lives: for a thread that drives a loop of
// its own (a fuzzer feeding connections in memory).
class ScopedLoop {
  public:
    explicit ScopedLoop(boost::asio::io_context& context);
    ~ScopedLoop();
    ScopedLoop(const ScopedLoop&) = delete;
    ScopedLoop& operator=(const ScopedLoop&) = delete;

  private:
    boost::asio::io_context* previous;
};

// Names the calling thread as `top -H` shows it (at most 15 characters are kept).
void NameThread(const char* name);

}  // namespace Pelinor::System
