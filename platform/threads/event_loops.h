// The daemon's event loops: one thread each, one per core (at least two). Connections and
// the jobs they start live on one loop for their whole life.
#pragma once

#include <boost/asio/any_io_executor.hpp>

namespace Pelinor::System {

class EventLoops {
  public:
    static EventLoops& Get();
    virtual ~EventLoops() = default;

    // The loops in turn, for new connections.
    virtual boost::asio::any_io_executor Next() = 0;
    // The calling thread's loop; Next() when the caller runs on none (tests, start-up).
    virtual boost::asio::any_io_executor Current() = 0;
    virtual bool OnLoopThread() const = 0;
};

}  // namespace Pelinor::System
