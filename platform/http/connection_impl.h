// The connection's code, for connection.cpp and for whoever instantiates it over another
// socket. Internal to the platform.
#pragma once

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <cstring>

#include "platform/base/exceptions.h"
#include "platform/http/connection.h"

namespace Pelinor::Http {

namespace ConnectionDetail {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace bhttp = boost::beast::http;

constexpr auto kAwait = net::as_tuple(net::use_awaitable_t<Executor>{});
// Taken when the client speaks after an idle pause: room for a head and a small report.
constexpr size_t kActiveBufferBytes = 4096;
// Room past the head limit, so the parser reports an oversized head rather than a full buffer.
constexpr size_t kHeadSlack = 1024;
// An idle connection keeps its buffer this long: a busy client's next request finds it.
constexpr std::chrono::seconds kBufferRest{1};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

inline bool IsParseError(const beast::error_code& ec) {
    return ec.category() == bhttp::make_error_code(bhttp::error::bad_target).category() &&
           ec != bhttp::error::end_of_stream && ec != bhttp::error::partial_message;
}

}  // namespace ConnectionDetail

template <typename Socket>
Connection<Socket>::Connection(std::shared_ptr<Core> owner, LoopConnections& home, Socket socket,
                               Ref<RequestHandler> handler, std::optional<uint32_t> clientUid)
    : ConnectionBase(std::move(owner), home, socket.get_executor()),
      socket(std::move(socket)),
      handler(std::move(handler)),
      clientUid(clientUid),
      buffer(core->limits.maxHeaderBytes + ConnectionDetail::kHeadSlack) {
    boost::system::error_code ignored;
    this->socket.non_blocking(true, ignored);  // reads and writes are tried, never waited in
}

template <typename Socket>
Task<void> Connection<Socket>::Run(std::shared_ptr<Connection> self) {
    self->home.Add(self.get());
    try {
        // Written out step by step: GCC 12 mishandles co_await inside && and ||.
        for (;;) {
            bool head = co_await self->ReadHead();
            if (!head) break;
            bool keepAlive = co_await self->Exchange();
            if (!keepAlive) break;
        }
    } catch (const std::exception& e) {
        Service::Log(self->core->logger, Service::LogLevel::Error, "HTTP connection failed: %1",
                     e.what());
    }
    self->Close();
    self->home.Remove(self.get());
    self->core->Unregister(self.get());
}

template <typename Socket>
bool Connection<Socket>::Fill(boost::beast::error_code& ec) {
    using namespace ConnectionDetail;
    // What fits without growing; a full (or freed) buffer grows a step, up to its limit.
    size_t room = buffer.capacity() - buffer.size();
    if (room == 0) {
        room = std::min(buffer.max_size() - buffer.size(),
                        std::max(kActiveBufferBytes, buffer.capacity()));
    }
    if (room == 0) {
        ec = net::error::no_buffer_space;
        return false;
    }
    size_t n = socket.read_some(buffer.prepare(room), ec);
    buffer.commit(n);
    return n > 0;
}

template <typename Socket>
Task<bool> Connection<Socket>::Ready(Phase waiting, Clock::time_point until, bool forWriting) {
    using namespace ConnectionDetail;
    if (closed) co_return false;
    phase = waiting;
    deadline = until;
    auto [ec] =
        co_await socket.async_wait(forWriting ? Socket::wait_write : Socket::wait_read, kAwait);
    co_return !ec && !closed && !timedOut;
}

// Kept apart from the exchange: an idle connection waits with nothing in its frame, and gives
// its buffer back once it has been idle for a while.
template <typename Socket>
Task<bool> Connection<Socket>::ReadHead() {
    using namespace ConnectionDetail;
    timedOut = false;
    if (buffer.size() == 0) {  // else a pipelined head has begun
        if (core->Stopping()) co_return false;
        idleSince = Clock::now();
        // Gone, idle for too long, or closed by Stop.
        if (!co_await Ready(Phase::Idle, idleSince + core->limits.idleTimeout)) co_return false;
    }
    // The whole head must arrive in time, counted from its first byte.
    phase = Phase::Head;
    deadline = Clock::now() + core->limits.headerTimeout;
    parser.emplace(core->limits.maxHeaderBytes);
    for (;;) {
        beast::error_code ec;
        if (buffer.size() > 0) {
            size_t used = parser->put(buffer.data(), ec);
            buffer.consume(used);
            if (parser->is_header_done()) co_return true;
        }
        if (ec == bhttp::error::need_more || buffer.size() == 0) {
            if (Fill(ec)) continue;
            if (ec == net::error::would_block) {
                if (co_await Ready(Phase::Head, deadline)) continue;
                if (timedOut) {
                    Service::Log(core->logger, Service::LogLevel::Verbose,
                                 "Closing a connection whose request head did not arrive in time");
                }
                co_return false;
            }
        }
        if (auto refusal = RefusalOfHead(ec)) {
            core->Render(rendered, *refusal, parser->versionNumber >= 11 ? 11 : 10, false);
            if (co_await Write(rendered)) co_await Linger();
        }
        co_return false;
    }
}

template <typename Socket>
std::optional<Answer> Connection<Socket>::RefusalOfHead(const boost::beast::error_code& ec) {
    using namespace ConnectionDetail;
    if (ec == bhttp::error::header_limit || ec == net::error::no_buffer_space) {
        Service::Log(core->logger, Service::LogLevel::Verbose,
                     "Refusing a request head over %1 bytes", core->limits.maxHeaderBytes);
        return Answer{ResponseCode::RequestHeaderFieldsTooLarge};
    }
    if (IsParseError(ec)) {
        Service::Log(core->logger, Service::LogLevel::Verbose, "Refusing a malformed request: %1",
                     ec.message());
        return Answer{ResponseCode::BadRequest};
    }
    return std::nullopt;  // the client left
}

template <typename Socket>
Task<bool> Connection<Socket>::Exchange() {
    unsigned version = parser->versionNumber >= 11 ? 11 : 10;
    expectContinue = version == 11 && parser->expectContinue;
    continueSent = closeAfterAnswer = false;
    answer.reset();
    auto length = parser->content_length();
    chunked = parser->chunked();
    remaining = chunked ? 0 : length.value_or(0);
    // A body that came with the head is handed over whole: reading it waits for nothing.
    const bool memoryBody = !chunked && buffer.size() >= remaining;
    const size_t memoryLength = memoryBody ? static_cast<size_t>(remaining) : 0;
    uint64_t current = ++exchange;
    phase = Phase::Handling;
    {
        // The head's texts are the request's now: the parser has no use for them any more.
        RequestHead request{std::move(parser->methodText), std::move(parser->target),
                            std::move(parser->contentType),
                            length ? std::optional<uint64_t>(*length) : std::nullopt, clientUid};
        if (memoryBody) {
            request.memoryBody.emplace(static_cast<const char*>(buffer.data().data()),
                                       memoryLength);
        }
        auto self = shared_from_this();
        Dispatch(MakeRequest(self, current, std::move(request)), MakeResponse(self, current));
    }  // a response released unanswered has delivered its code by now

    if (!answer && !closed) co_await AwaitAnswer();
    if (closed) co_return false;

    // Another request may follow only when this one was read to its end.
    bool bodyRead =
        memoryBody ? memoryLength == 0 || memoryBodyEnded.load(std::memory_order_relaxed) == current
                   : !chunked && remaining == 0;
    if (memoryBody) buffer.consume(memoryLength);
    bool keepAlive = !closeAfterAnswer && !core->Stopping() && parser->keep_alive() && bodyRead;
    core->Render(rendered, *answer, version, keepAlive);
    answer.reset();
    parser.reset();
    if (!co_await Write(rendered)) co_return false;
    if (!keepAlive) {
        co_await Linger();
        co_return false;
    }
    co_return true;
}

template <typename Socket>
Task<void> Connection<Socket>::AwaitAnswer() {
    co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<Executor>&, void()>(
        [this](auto waiter) { answerWaiter.emplace(std::move(waiter)); },
        boost::asio::use_awaitable_t<Executor>{});
}

template <typename Socket>
void Connection<Socket>::Dispatch(const Ref<Request>& request, const Ref<Response>& response) {
    namespace bhttp = boost::beast::http;
    try {
        if (!handler) throw std::logic_error("no request handler is set");
        switch (parser->method) {
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
        Service::Log(core->logger, Service::LogLevel::Error, "Handling %1 %2 failed: %3",
                     request->GetMethod(), request->GetUrl(), e.what());
    }
    // The handler may have left the exchange half done; start afresh on a new connection.
    closeAfterAnswer = true;
    SendFailure(*response);
}

template <typename Socket>
int64_t Connection<Socket>::ReadAvailable(uint64_t of, char* out, size_t size) {
    if (of != exchange || (phase != Phase::Handling && phase != Phase::Body)) return -1;
    if (answer) throw IOException("The response has already been sent");
    if (closed) throw IOException("The client connection is closed");
    if (chunked) throw IOException("A chunked request body is not read");
    if (remaining == 0) return -1;
    size_t n = static_cast<size_t>(std::min<uint64_t>({size, remaining, buffer.size()}));
    std::memcpy(out, buffer.data().data(), n);
    buffer.consume(n);
    remaining -= n;
    return static_cast<int64_t>(n);
}

template <typename Socket>
Task<int64_t> Connection<Socket>::ReadBody(uint64_t of, char* out, size_t size) {
    using namespace ConnectionDetail;
    for (;;) {
        int64_t n = ReadAvailable(of, out, size);
        if (n != 0 || size == 0) co_return n;
        // The client holds the body back until told to go on; told only now that someone
        // wants it, so a refused request never has its body sent.
        if (expectContinue && !continueSent) {
            continueSent = true;
            bool sent = co_await Write(kContinue);
            phase = Phase::Handling;
            if (!sent) {
                Close();
                throw IOException("The client closed the connection");
            }
        }
        beast::error_code ec;
        if (Fill(ec)) continue;
        bool waited = false;
        if (ec == net::error::would_block) {
            readingBody = true;
            waited = co_await Ready(Phase::Body, Clock::now() + core->limits.bodyTimeout);
            readingBody = false;
            phase = Phase::Handling;
            if (answer) throw IOException("The response has already been sent");
            if (waited) continue;
        }
        if (timedOut) {
            Service::Log(core->logger, Service::LogLevel::Verbose,
                         "Closing a connection whose request body stalled");
            Close();
            throw IOException("Timed out waiting for the request body");
        }
        bool stopped = closed && core->Stopping();
        Close();
        throw IOException(stopped ? "The HTTP service is stopping"
                                  : "The client closed the connection");
    }
}

template <typename Socket>
void Connection<Socket>::Deliver(uint64_t of, Answer delivered) {
    if (closed || of != exchange || answer) return;
    answer = std::move(delivered);
    if (readingBody) {
        // Answered while its body was still being read: that read is called off, and the
        // connection ends with this answer.
        closeAfterAnswer = true;
        boost::system::error_code ignored;
        socket.cancel(ignored);
    }
    WakeAnswerWaiter();
}

// Resumed from the loop's queue, never from inside whoever delivered or closed.
template <typename Socket>
void Connection<Socket>::WakeAnswerWaiter() {
    if (!answerWaiter) return;
    auto waiter = std::move(*answerWaiter);
    answerWaiter.reset();
    boost::asio::post(executor, std::move(waiter));
}

template <typename Socket>
Task<bool> Connection<Socket>::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        boost::beast::error_code ec;
        bytes.remove_prefix(socket.write_some(boost::asio::buffer(bytes), ec));
        if (bytes.empty()) break;
        if (ec && ec != boost::asio::error::would_block) co_return false;
        if (!co_await Ready(Phase::Writing, Clock::now() + core->limits.bodyTimeout, true))
            co_return false;
    }
    co_return true;
}

template <typename Socket>
Task<void> Connection<Socket>::Linger() {
    boost::system::error_code ignored;
    socket.shutdown(Socket::shutdown_send, ignored);
    timedOut = false;
    auto until = Clock::now() + kLingerTime;
    for (size_t drained = 0; drained < kLingerBytes;) {
        buffer.clear();
        boost::beast::error_code ec;
        if (Fill(ec)) {
            drained += buffer.size();
            continue;
        }
        if (ec != boost::asio::error::would_block) break;
        if (!co_await Ready(Phase::Lingering, until)) break;
    }
}

template <typename Socket>
void Connection<Socket>::CloseIfIdle() {
    if (phase == Phase::Idle) Close();
}

template <typename Socket>
void Connection<Socket>::Close() {
    if (closed) return;
    closed = true;
    gone.store(true, std::memory_order_relaxed);
    boost::system::error_code ignored;
    socket.close(ignored);
    WakeAnswerWaiter();
}

template <typename Socket>
void Connection<Socket>::Sweep(Clock::time_point now) {
    using namespace ConnectionDetail;
    if (phase == Phase::Idle && buffer.size() == 0 && buffer.capacity() > 0 &&
        now - idleSince >= kBufferRest) {
        buffer.shrink_to_fit();
    }
    if (phase != Phase::Handling && !timedOut && now >= deadline) {
        timedOut = true;
        boost::system::error_code ignored;
        socket.cancel(ignored);
    }
}

}  // namespace Pelinor::Http
