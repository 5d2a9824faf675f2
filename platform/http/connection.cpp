#include "platform/http/connection.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include "platform/base/exceptions.h"

namespace Pelinor::Http {

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
using tcp = net::ip::tcp;
using Service::Log;
using Service::LogLevel;

constexpr auto kAwait = net::as_tuple(net::use_awaitable);
// Taken when the client speaks again after an idle pause: room for a head and a small
// report in one read.
constexpr size_t kActiveBufferBytes = 4096;
// Room past the head limit, so the parser reports an oversized head rather than a full buffer.
constexpr size_t kHeadSlack = 1024;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

bool IsParseError(const beast::error_code& ec) {
    return ec.category() == bhttp::make_error_code(bhttp::error::bad_target).category() &&
           ec != bhttp::error::end_of_stream && ec != bhttp::error::partial_message;
}

}  // namespace

Connection::Connection(std::shared_ptr<Core> owner, tcp::socket socket,
                       std::optional<uint32_t> clientUid)
    : core(std::move(owner)),
      executor(socket.get_executor()),
      clientUid(clientUid),
      stream(std::move(socket)),
      buffer(core->limits.maxHeaderBytes + kHeadSlack),
      wakeup(executor) {}

Task<void> Connection::Run(std::shared_ptr<Connection> self) {
    try {
        // Written out step by step: GCC 12 mishandles co_await inside && and ||.
        for (;;) {
            bool spoke = co_await self->AwaitBytes();
            if (!spoke) break;
            bool head = co_await self->ReadHead();
            if (!head) break;
            bool keepAlive = co_await self->Exchange();
            if (!keepAlive) break;
        }
    } catch (const std::exception& e) {
        Log(self->core->logger, LogLevel::Error, "HTTP connection failed: %1", e.what());
    }
    self->Close();
    self->core->Unregister(self.get());
}

// Kept apart from reading the head, with nothing else in its frame: an idle connection
// holds no buffer while it waits, only the one byte it asks for.
Task<bool> Connection::AwaitBytes() {
    if (buffer.size() > 0) co_return true;  // pipelined: the next head has begun
    buffer.shrink_to_fit();
    idle = true;
    if (core->Stopping()) co_return false;
    stream.expires_after(core->limits.idleTimeout);
    auto result = co_await stream.async_read_some(net::buffer(&firstByte, 1), kAwait);
    idle = false;
    if (std::get<0>(result)) co_return false;  // gone, idle for too long, or closed by Stop
    buffer.reserve(std::min(kActiveBufferBytes, buffer.max_size()));
    net::buffer_copy(buffer.prepare(1), net::buffer(&firstByte, 1));
    buffer.commit(1);
    co_return true;
}

Task<bool> Connection::ReadHead() {
    parser = std::make_unique<Parser>();
    parser->header_limit(static_cast<uint32_t>(core->limits.maxHeaderBytes));
    // How much body is acceptable is the handler's call, made from Content-Length.
    parser->body_limit(boost::none);

    // The whole head must arrive in time, counted from its first byte.
    stream.expires_after(core->limits.headerTimeout);
    auto [ec, n] = co_await bhttp::async_read_header(stream, buffer, *parser, kAwait);
    if (!ec) co_return true;
    if (auto refusal = RefusalOfHead(ec)) {
        answer = std::move(refusal);
        answer->keep_alive(false);
        stream.expires_after(core->limits.bodyTimeout);
        auto [written, size] = co_await bhttp::async_write(stream, *answer, kAwait);
        if (!written) co_await Linger();
    }
    co_return false;
}

std::optional<Message> Connection::RefusalOfHead(const beast::error_code& ec) {
    if (ec == bhttp::error::header_limit || ec == bhttp::error::buffer_overflow) {
        Log(core->logger, LogLevel::Verbose, "Refusing a request head over %1 bytes",
            core->limits.maxHeaderBytes);
        return core->MakeMessage(ResponseCode::RequestHeaderFieldsTooLarge, 11);
    }
    if (IsParseError(ec)) {
        Log(core->logger, LogLevel::Verbose, "Refusing a malformed request: %1", ec.message());
        return core->MakeMessage(ResponseCode::BadRequest, 11);
    }
    if (ec == beast::error::timeout) {
        Log(core->logger, LogLevel::Verbose,
            "Closing a connection whose request head did not arrive in time");
    }
    return std::nullopt;
}

Task<bool> Connection::Exchange() {
    const auto& head = parser->get();
    unsigned version = head.version() >= 11 ? 11 : 10;
    expectContinue = version == 11 && beast::iequals(head[bhttp::field::expect], "100-continue");
    continueSent = false;
    closeAfterAnswer = false;
    answer.reset();
    uint64_t current = ++exchange;
    {
        auto length = parser->content_length();
        auto self = shared_from_this();
        auto request =
            MakeRequest(self, current, head,
                        length ? std::optional<uint64_t>(*length) : std::nullopt, clientUid);
        Ref<Response> response = MakeResponse(self, current, version);
        Dispatch(request, response);
    }  // a response released unanswered has delivered its code by now

    while (!answer && !closed) {
        wakeup.expires_at(net::steady_timer::time_point::max());
        co_await wakeup.async_wait(kAwait);
    }
    if (closed) co_return false;

    // Another request may follow only when this one was read to its end.
    bool keepAlive =
        !closeAfterAnswer && !core->Stopping() && parser->keep_alive() && parser->is_done();
    answer->keep_alive(keepAlive);
    stream.expires_after(core->limits.bodyTimeout);
    auto [ec, n] = co_await bhttp::async_write(stream, *answer, kAwait);
    answer.reset();
    parser.reset();
    if (ec) co_return false;
    if (!keepAlive) {
        co_await Linger();
        co_return false;
    }
    co_return true;
}

void Connection::Dispatch(const Ref<Request>& request, const Ref<Response>& response) {
    const auto& head = parser->get();
    auto handler = core->GetHandler();
    try {
        if (!handler) throw std::logic_error("no request handler is set");
        switch (head.method()) {
            case bhttp::verb::post:
                handler->HandlePost(request, response);
                break;
            case bhttp::verb::get:
                handler->HandleGet(request, response);
                break;
            case bhttp::verb::head:
                handler->HandleHead(request, response);
                break;
            case bhttp::verb::put:
                handler->HandlePut(request, response);
                break;
            case bhttp::verb::delete_:
                handler->HandleDelete(request, response);
                break;
            default:
                handler->HandleOther(request, response);
                break;
        }
        return;
    } catch (const std::exception& e) {
        Log(core->logger, LogLevel::Error, "Handling %1 %2 failed: %3",
            std::string(head.method_string()), std::string(head.target()), e.what());
    }
    // The handler may have left the exchange half done; start afresh on a new connection.
    closeAfterAnswer = true;
    SendFailure(*response);
}

Task<int64_t> Connection::ReadBody(uint64_t of, char* out, size_t size) {
    if (of != exchange || !parser) co_return -1;  // a later exchange began: this body had ended
    if (answer) throw IOException("The response has already been sent");
    if (closed) throw IOException("The client connection is closed");
    if (size == 0) co_return 0;
    auto& body = parser->get().body();
    for (;;) {
        if (parser->is_done()) co_return -1;
        if (buffer.size() > 0) {
            body.data = out;
            body.size = size;
            beast::error_code ec;
            size_t used = parser->put(buffer.data(), ec);
            buffer.consume(used);
            size_t produced = size - body.size;
            body.data = nullptr;
            if (ec == bhttp::error::need_buffer) ec = {};
            if (ec && ec != bhttp::error::need_more) {
                closeAfterAnswer = true;
                throw IOException("Malformed request body: " + ec.message());
            }
            if (produced > 0) co_return static_cast<int64_t>(produced);
            if (parser->is_done()) co_return -1;
            if (!ec && used > 0) continue;  // framing only, such as a chunk header
        }
        // The client holds the body back until told to go on; told only now that someone
        // wants it, so a refused request never has its body sent.
        if (expectContinue && !continueSent) {
            continueSent = true;
            stream.expires_after(core->limits.bodyTimeout);
            auto [ec, n] = co_await net::async_write(
                stream, net::buffer(kContinue.data(), kContinue.size()), kAwait);
            if (ec) {
                Close();
                throw IOException("The client closed the connection");
            }
        }
        reading = true;
        stream.expires_after(core->limits.bodyTimeout);
        auto [ec, n] = co_await stream.async_read_some(
            buffer.prepare(buffer.max_size() - buffer.size()), kAwait);
        reading = false;
        buffer.commit(n);
        if (ec == beast::error::timeout) {
            Log(core->logger, LogLevel::Verbose, "Closing a connection whose request body stalled");
            Close();
            throw IOException("Timed out waiting for the request body");
        }
        if (answer) throw IOException("The response has already been sent");
        if (ec) {
            bool stopped = closed && core->Stopping();
            Close();
            throw IOException(stopped ? "The HTTP service is stopping"
                                      : "The client closed the connection");
        }
    }
}

void Connection::Deliver(uint64_t of, Message message) {
    if (closed || of != exchange || answer) return;
    answer = std::move(message);
    if (reading) {
        // Answered while its body was still being read: that read is called off, and the
        // connection ends with this answer.
        closeAfterAnswer = true;
        beast::error_code ignored;
        stream.socket().cancel(ignored);
    }
    wakeup.cancel();
}

Task<void> Connection::Linger() {
    beast::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream.expires_after(kLingerTime);
    for (size_t drained = 0; drained < kLingerBytes;) {
        buffer.clear();
        auto [ec, n] = co_await stream.async_read_some(buffer.prepare(buffer.max_size()), kAwait);
        if (ec) break;
        drained += n;
    }
}

void Connection::Close() {
    if (closed) return;
    closed = true;
    gone.store(true, std::memory_order_relaxed);
    stream.close();
    wakeup.cancel();
}

}  // namespace Pelinor::Http
