// The scheduler's event loop and its one thread. Internal to platform/.
#pragma once

#include <boost/asio/io_context.hpp>

namespace Pelinor::System {

// The real scheduler's loop, on which scheduled callbacks and process watches run.
boost::asio::io_context& SchedulerLoop();

}  // namespace Pelinor::System
