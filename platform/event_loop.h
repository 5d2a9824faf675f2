// The daemon's event loop: the scheduler's one thread. Internal to platform/.
#pragma once

#include <boost/asio/io_context.hpp>

namespace Pelinor::System {

// The real scheduler's loop, on which scheduled callbacks and process watches run.
boost::asio::io_context& EventLoop();

}  // namespace Pelinor::System
