// A job that suspends instead of blocking: a coroutine on one of the daemon's event loops.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>

namespace Pelinor {

// An event loop's executor, of its concrete type: nothing on the hot path pays for erasing it.
using Executor = boost::asio::io_context::executor_type;

template <typename T = void>
using Task = boost::asio::awaitable<T, Executor>;

}  // namespace Pelinor
