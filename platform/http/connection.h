// One client connection, served by one coroutine on one event loop: read a head, hand the
// exchange to the handler, wait for its answer (the handler's job reads the body meanwhile),
// write the answer, and on to the next head. Reads and writes are tried at once, without
// waiting; only when the socket has nothing (or no room) does the coroutine wait for it. The
// loop's sweep keeps the time of every state, so no timer is armed per request.
//
// A class template over the socket, so that the same code serves a socket in memory (fuzzing).
#pragma once

#include <boost/asio/any_completion_handler.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <optional>
#include <string>

#include "platform/http/service.h"

namespace Pelinor::Http {

// A request head, kept as far as the handler asks for it; no body is parsed with it.
class HeadParser final : public boost::beast::http::basic_parser<true> {
  public:
    HeadParser(size_t headerLimit);

    boost::beast::http::verb method{};
    std::string methodText, target, contentType;
    unsigned versionNumber = 11;
    bool expectContinue = false;

  private:
    using string_view = boost::beast::string_view;
    using error_code = boost::beast::error_code;
    void on_request_impl(boost::beast::http::verb verb, string_view methodString,
                         string_view requestTarget, int version, error_code&) override;
    void on_response_impl(int, string_view, int, error_code&) override {}
    void on_field_impl(boost::beast::http::field name, string_view, string_view value,
                       error_code&) override;
    void on_header_impl(error_code&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>&, error_code&) override {}
    std::size_t on_body_impl(string_view body, error_code&) override { return body.size(); }
    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code&) override {
        return body.size();
    }
    void on_finish_impl(error_code&) override {}

    bool haveContentType = false;
};

template <typename Socket>
class Connection final : public ConnectionBase {
  public:
    Connection(std::shared_ptr<Core> core, LoopConnections& home, Socket socket,
               Ref<RequestHandler> handler, std::optional<uint32_t> clientUid);

    // Serves until the client leaves, a time-out passes or the service stops.
    static Task<void> Run(std::shared_ptr<Connection> self);

    int64_t ReadAvailable(uint64_t exchange, char* out, size_t size) override;
    Task<int64_t> ReadBody(uint64_t exchange, char* out, size_t size) override;
    void Deliver(uint64_t exchange, Answer answer) override;
    void CloseIfIdle() override;
    void Close() override;
    void Sweep(Clock::time_point now) override;

  private:
    // What the connection waits for; every state but Handling has a deadline.
    enum class Phase { Idle, Head, Handling, Body, Writing, Lingering };

    Task<bool> ReadHead();
    Task<bool> Exchange();
    void Dispatch(const Ref<Request>& request, const Ref<Response>& response);
    std::optional<Answer> RefusalOfHead(const boost::beast::error_code& ec);
    Task<void> AwaitAnswer();
    void WakeAnswerWaiter();
    // One read without waiting; false with `ec` set when it brought nothing.
    bool Fill(boost::beast::error_code& ec);
    // Waits in `phase` until the socket can be read (or written); false when it is closed
    // or its time is up.
    Task<bool> Ready(Phase phase, Clock::time_point until, bool forWriting = false);
    Task<bool> Write(std::string_view bytes);
    Task<void> Linger();

    Socket socket;
    const Ref<RequestHandler> handler;
    const std::optional<uint32_t> clientUid;
    boost::beast::flat_buffer buffer;
    std::optional<HeadParser> parser;  // one exchange's
    std::optional<Answer> answer;
    std::optional<boost::asio::any_completion_handler<void()>> answerWaiter;
    std::string rendered;  // an answer as it goes out
    uint64_t exchange = 0;
    Phase phase = Phase::Handling;
    Clock::time_point deadline{};
    Clock::time_point idleSince{};
    // The body of the current exchange: bytes still to come, unless chunked or handed over
    // whole with the head.
    uint64_t remaining = 0;
    bool chunked = false;
    bool closed = false;
    bool timedOut = false;
    bool expectContinue = false;
    bool continueSent = false;
    bool closeAfterAnswer = false;
    bool readingBody = false;  // a body read waits on the socket
};

// The daemon's connections; the fuzzer instantiates its own.
extern template class Connection<TcpSocket>;

}  // namespace Pelinor::Http
