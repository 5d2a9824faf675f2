// A job that suspends instead of blocking: a coroutine on the daemon's event loops.
#pragma once

#include <boost/asio/awaitable.hpp>

namespace Pelinor {

template <typename T = void>
using Task = boost::asio::awaitable<T>;

}  // namespace Pelinor
