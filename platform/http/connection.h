// One client connection, served by one coroutine on one event loop: read a head, hand
// the exchange to the handler, wait for its answer (the handler's job reads the body
// meanwhile, through the same connection), write the answer, and on to the next head.
#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <memory>
#include <optional>

#include "platform/http/service.h"

namespace Pelinor::Http {

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(std::shared_ptr<Core> core, boost::asio::ip::tcp::socket socket,
               std::optional<uint32_t> clientUid);

    // Serves until the client leaves, a time-out passes or the service stops.
    static Task<void> Run(std::shared_ptr<Connection> self);

    // All below run on the connection's loop.
    Task<int64_t> ReadBody(uint64_t exchange, char* out, size_t size);
    void Deliver(uint64_t exchange, Message message);
    void CloseIfIdle() {
        if (idle) Close();
    }
    void Close();

    const boost::asio::any_io_executor& Executor() const { return executor; }
    // Any thread: whether the connection has closed.
    bool Gone() const { return gone.load(std::memory_order_relaxed); }
    Core& Owner() const { return *core; }

  private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;

    Task<bool> AwaitBytes();
    Task<bool> ReadHead();
    Task<bool> Exchange();
    Task<void> Linger();
    void Dispatch(const Ref<Request>& request, const Ref<Response>& response);
    std::optional<Message> RefusalOfHead(const boost::system::error_code& ec);

    // Keeps the loop's state alive while any socket or timer of the connection exists.
    const std::shared_ptr<Core> core;
    const boost::asio::any_io_executor executor;
    const std::optional<uint32_t> clientUid;
    boost::beast::tcp_stream stream;
    boost::beast::flat_buffer buffer;
    std::unique_ptr<Parser> parser;  // one exchange's; none while idle
    // Wakes the connection when its answer is delivered or the connection closes.
    boost::asio::steady_timer wakeup;
    std::optional<Message> answer;
    uint64_t exchange = 0;
    bool idle = false;
    char firstByte = 0;  // what an idle connection reads into
    bool closed = false;
    bool expectContinue = false;
    bool continueSent = false;
    bool closeAfterAnswer = false;
    bool reading = false;  // a body read is in flight
    std::atomic<bool> gone{false};
};

}  // namespace Pelinor::Http
