// The HTTP service on Boost.Beast: a few service threads run every socket; handlers are
// called on them, and request bodies are handed to pool threads through one fixed chunk
// per connection.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include "platform/exceptions.h"
#include "platform/http.h"

namespace Pelinor::Http {

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
using tcp = net::ip::tcp;
using Service::LogLevel;

constexpr int kIoThreads = 2;
// Body bytes handed to the reading pool thread at a time.
constexpr size_t kBodyChunk = 16 * 1024;
// Room past the head limit, so the parser reports an oversized head rather than a full buffer.
constexpr size_t kHeadSlack = 1024;
// After an answer that closes the connection, unread input is drained this long and this
// far, so the client reads the answer instead of a reset.
constexpr std::chrono::milliseconds kDrainTime{500};
constexpr size_t kDrainBytes = 64 * 1024;
// Pause before accepting again after the process ran out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptRetry{100};
// Stop's bound on waiting for closed connections and for the threads to run dry.
constexpr std::chrono::milliseconds kSettleWait{2000};
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

using Message = bhttp::response<bhttp::empty_body>;

class Core;
// Set on the service's own threads: blocking there would stall every connection.
thread_local const Core* tServiceThread = nullptr;

class Connection;

class Core : public std::enable_shared_from_this<Core> {
  public:
    Core(Ref<Service::Logger> logger, std::vector<ResponseHeaderDefinition> headers,
         const HttpLimits& limits)
        : logger(std::move(logger)),
          headers(std::move(headers)),
          limits(Sanitize(limits)),
          acceptStrand(net::make_strand(ioc)),
          acceptRetry(acceptStrand) {}

    void Adopt(const std::vector<int>& descriptors);
    void SetHandler(const Ref<RequestHandler>& h) {
        std::lock_guard lock(mutex);
        handler = h;
    }
    Ref<RequestHandler> GetHandler() {
        std::lock_guard lock(mutex);
        return handler;
    }
    void Start();
    void Stop();

    // Posts from outside the service threads; false once the service has stopped, so
    // nothing is queued on an io_context that will never run it.
    template <typename Handler>
    bool Post(const net::any_io_executor& executor, Handler&& handler) {
        std::lock_guard lock(mutex);
        if (!running) return false;
        net::post(executor, std::forward<Handler>(handler));
        return true;
    }

    void EnterBusy() {
        std::lock_guard lock(mutex);
        ++busy;
    }
    void LeaveBusy() {
        std::lock_guard lock(mutex);
        --busy;
        changed.notify_all();
    }
    void Unregister(uint64_t id);
    bool Stopping() const { return stopping.load(); }

    net::io_context ioc;
    const Ref<Service::Logger> logger;
    const std::vector<ResponseHeaderDefinition> headers;
    const HttpLimits limits;

  private:
    struct Listener {
        tcp::acceptor acceptor;
        tcp protocol;
        bool waiting = false;
    };

    static HttpLimits Sanitize(HttpLimits limits) {
        limits.maxConnections = std::max<size_t>(limits.maxConnections, 1);
        limits.maxHeaderBytes = std::clamp<size_t>(limits.maxHeaderBytes, 256,
                                                   std::numeric_limits<uint32_t>::max() / 2);
        return limits;
    }

    // All on acceptStrand.
    void ArmAll();
    void Arm(size_t index);
    void OnAcceptable(size_t index, const beast::error_code& ec);
    void RetryLater();
    void Open(int fd, const tcp& protocol);

    std::vector<std::shared_ptr<Connection>> Snapshot();

    net::strand<net::io_context::executor_type> acceptStrand;
    net::steady_timer acceptRetry;
    bool retryPending = false;
    std::vector<Listener> listeners;
    std::atomic<bool> stopping{false};

    std::mutex stopMutex;  // one Stop at a time; a second waits and finds it done
    std::mutex mutex;      // everything below
    std::condition_variable changed;
    Ref<RequestHandler> handler;
    bool started = false;
    bool stopped = false;
    bool running = false;
    std::unordered_map<uint64_t, std::weak_ptr<Connection>> connections;
    uint64_t nextId = 0;
    size_t busy = 0;
    size_t exited = 0;
    std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
    std::vector<std::thread> threads;
};

// One client connection. Everything but the body channel and `dead` belongs to the
// connection's strand.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(std::shared_ptr<Core> owner, uint64_t id, tcp::socket s)
        : core(std::move(owner)),
          id(id),
          executor(s.get_executor()),
          socket(std::move(s)),
          readTimer(executor),
          writeTimer(executor),
          buffer(std::max(core->limits.maxHeaderBytes + kHeadSlack, kBodyChunk)) {
        buffer.reserve(buffer.max_size());
    }

    const net::any_io_executor& Executor() const { return executor; }
    bool Dead() const { return dead.load(); }

    void Start() {
        ArmReadTimer(core->limits.headerTimeout, Wait::Head);
        ReadHead();
    }

    // Any thread.
    int64_t Read(uint64_t seq, char* out, size_t size);
    bool PostResponse(Message message) {
        return core->Post(executor, [self = shared_from_this(), m = std::move(message)]() mutable {
            self->Deliver(std::move(m), false);
        });
    }

    // Strand.
    void Close(const std::string& reason);
    void CloseIfIdle() {
        if (phase == Phase::Idle) Close("The HTTP service is stopping");
    }
    void MarkCloseAfterResponse() { closeAfterResponse = true; }

  private:
    enum class Phase { Head, Idle, Handling, Writing, Draining, Closed };
    enum class Wait { Head, Idle, Body, Drain };
    enum class BodyState { Open, Ended, Failed };

    void ReadHead();
    void OnHead(beast::error_code ec);
    void Dispatch();
    void Fill(uint64_t seq);
    void ReadBody();
    void OnBodyRead(beast::error_code ec);
    void Deliver(Message message, bool forceClose);
    void OnContinueWritten(const beast::error_code& ec);
    void WriteResponse(Message message, bool keepAlive);
    void OnResponseWritten(const beast::error_code& ec, bool keepAlive);
    void AwaitNextRequest();
    void BeginClosing();
    void Drain();
    void SendStatus(const ResponseCode& code);
    void FailBody(const std::string& reason);
    void PublishBody(size_t size, bool ended);
    void LeaveBusy() {
        if (std::exchange(busy, false)) core->LeaveBusy();
    }

    void ArmReadTimer(std::chrono::milliseconds after, Wait what);
    void CancelReadTimer() {
        ++readTimerGen;
        readTimer.cancel();
    }
    void ArmWriteTimer();
    void CancelWriteTimer() {
        ++writeTimerGen;
        writeTimer.cancel();
    }

    // Keeps the io_context alive while any socket or timer of the connection exists.
    const std::shared_ptr<Core> core;
    const uint64_t id;
    const net::any_io_executor executor;
    tcp::socket socket;
    net::steady_timer readTimer;
    net::steady_timer writeTimer;
    uint64_t readTimerGen = 0;
    uint64_t writeTimerGen = 0;
    beast::flat_buffer buffer;
    std::optional<bhttp::request_parser<bhttp::buffer_body>> parser;
    std::optional<Message> outgoing;
    std::optional<Message> queued;  // waits for the interim answer to be written
    bool queuedKeepAlive = false;
    Phase phase = Phase::Head;
    unsigned version = 11;
    bool readInFlight = false;
    bool writeInFlight = false;
    bool expectContinue = false;
    bool continueSent = false;
    bool responded = false;
    bool closeAfterResponse = false;
    bool busy = false;
    bool closed = false;
    size_t drained = 0;
    std::atomic<bool> dead{false};

    // The body channel between the strand and the reading pool thread. The chunk is
    // written by the strand only while it holds no unread bytes, and read by the pool
    // thread only under the mutex while it does.
    std::mutex channelMutex;
    std::condition_variable channelChanged;
    uint64_t channelSeq = 0;  // the exchange whose body the channel carries
    BodyState bodyState = BodyState::Ended;
    std::string failure;
    size_t availBegin = 0;
    size_t availEnd = 0;
    bool fillRequested = false;
    std::array<char, kBodyChunk> chunk;
};

class RequestImpl final : public Request {
  public:
    RequestImpl(std::shared_ptr<Connection> connection, uint64_t seq, std::string method,
                std::string url, std::string contentType, std::optional<uint64_t> length)
        : connection(std::move(connection)),
          seq(seq),
          method(std::move(method)),
          url(std::move(url)),
          contentType(std::move(contentType)),
          length(length) {}

    std::string GetMethod() const override { return method; }
    void GetContentType(std::string& out) const override { out = contentType; }
    std::string GetUrl() const override { return url; }
    bool GetContentLength(int64_t& out) const override {
        if (!length) return false;
        out = static_cast<int64_t>(std::min<uint64_t>(
            *length, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
        return true;
    }
    int64_t Read(char* buffer, size_t size) override { return connection->Read(seq, buffer, size); }

  private:
    const std::shared_ptr<Connection> connection;
    const uint64_t seq;
    const std::string method;
    const std::string url;
    const std::string contentType;
    const std::optional<uint64_t> length;
};

std::optional<uint64_t> ContentLength(const bhttp::request_parser<bhttp::buffer_body>& parser) {
    auto length = parser.content_length();
    return length ? std::optional<uint64_t>(*length) : std::nullopt;
}

bool IsToken(std::string_view name) {
    static constexpr std::string_view kSpecials = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               kSpecials.find(c) != std::string_view::npos;
    });
}

class ResponseImpl final : public Response {
  public:
    ResponseImpl(std::shared_ptr<Connection> connection, std::shared_ptr<Core> core,
                 unsigned version)
        : connection(std::move(connection)), core(std::move(core)), version(version) {}

    ~ResponseImpl() override {
        // Nobody answered: the client still deserves one.
        std::lock_guard lock(mutex);
        try {
            SendLocked();
        } catch (const std::exception&) {
            // The client is gone; there is no one left to tell.
        }
    }

    void SetResponseCode(const ResponseCode& c) override {
        if (c.code < 100 || c.code > 999) {
            throw InvalidArgumentException("Invalid HTTP status " + std::to_string(c.code));
        }
        std::lock_guard lock(mutex);
        code = c.code;
        reason = std::string(c.reason);
    }

    void SetHeader(const std::string& name, const std::string& value) override {
        // A line break in either would let the caller forge headers.
        if (!IsToken(name) ||
            value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
            throw InvalidArgumentException("Invalid response header " + name);
        }
        std::lock_guard lock(mutex);
        for (auto& header : headers) {
            if (beast::iequals(header.name, name)) {
                header.value = value;
                return;
            }
        }
        headers.push_back({name, value});
    }

    void Send() override {
        std::lock_guard lock(mutex);
        SendLocked();
    }

    // After the handler failed: 500 unless an answer is already on its way.
    void SendFailure() {
        std::lock_guard lock(mutex);
        if (sent) return;
        code = ResponseCode::InternalServerError.code;
        reason = std::string(ResponseCode::InternalServerError.reason);
        SendLocked();
    }

  private:
    void SendLocked() {
        if (sent) return;
        sent = true;
        if (connection->Dead()) throw IOException("The client connection is closed");
        Message message;
        message.version(version);
        if (code) {
            message.result(static_cast<unsigned>(*code));
            message.reason(reason);
        } else {
            message.result(bhttp::status::internal_server_error);
        }
        for (const auto& header : core->headers) message.set(header.name, header.value);
        for (const auto& header : headers) message.set(header.name, header.value);
        message.content_length(0);
        if (!connection->PostResponse(std::move(message))) {
            throw IOException("The HTTP service has stopped");
        }
    }

    const std::shared_ptr<Connection> connection;
    const std::shared_ptr<Core> core;
    const unsigned version;
    std::mutex mutex;
    std::optional<int> code;
    std::string reason;
    std::vector<ResponseHeaderDefinition> headers;
    bool sent = false;
};

// ---- Connection -------------------------------------------------------------------

void Connection::ArmReadTimer(std::chrono::milliseconds after, Wait what) {
    if (closed) return;  // a pending timer would keep the threads from running dry at Stop
    uint64_t gen = ++readTimerGen;
    readTimer.expires_after(after);
    readTimer.async_wait([self = shared_from_this(), gen, what](const beast::error_code& ec) {
        if (ec || self->closed || gen != self->readTimerGen) return;
        switch (what) {
            case Wait::Head:
                Service::Log(self->core->logger, LogLevel::Verbose,
                             "Closing a connection whose request head did not arrive in time");
                self->Close("The request head did not arrive in time");
                break;
            case Wait::Idle:
                self->Close("The connection was idle");
                break;
            case Wait::Body:
                Service::Log(self->core->logger, LogLevel::Verbose,
                             "Closing a connection whose request body stalled");
                self->FailBody("Timed out waiting for the request body");
                self->Close("Timed out waiting for the request body");
                break;
            case Wait::Drain:
                self->Close("The connection is closed");
                break;
        }
    });
}

void Connection::ArmWriteTimer() {
    if (closed) return;
    uint64_t gen = ++writeTimerGen;
    writeTimer.expires_after(core->limits.bodyTimeout);
    writeTimer.async_wait([self = shared_from_this(), gen](const beast::error_code& ec) {
        if (ec || self->closed || gen != self->writeTimerGen) return;
        self->Close("Timed out writing the response");
    });
}

void Connection::ReadHead() {
    phase = Phase::Head;
    parser.emplace();
    parser->header_limit(static_cast<uint32_t>(core->limits.maxHeaderBytes));
    // How much body is acceptable is the handler's call, made from Content-Length.
    parser->body_limit(boost::none);
    bhttp::async_read_header(
        socket, buffer, *parser,
        [self = shared_from_this()](beast::error_code ec, size_t) { self->OnHead(ec); });
}

void Connection::OnHead(beast::error_code ec) {
    if (closed) return;
    CancelReadTimer();
    if (!ec) {
        Dispatch();
        return;
    }
    if (ec == bhttp::error::header_limit || ec == bhttp::error::buffer_overflow) {
        Service::Log(core->logger, LogLevel::Verbose, "Refusing a request head over %1 bytes",
                     core->limits.maxHeaderBytes);
        SendStatus(ResponseCode::RequestHeaderFieldsTooLarge);
    } else if (ec.category() == bhttp::make_error_code(bhttp::error::bad_target).category() &&
               ec != bhttp::error::end_of_stream && ec != bhttp::error::partial_message) {
        Service::Log(core->logger, LogLevel::Verbose, "Refusing a malformed request: %1",
                     ec.message());
        SendStatus(ResponseCode::BadRequest);
    } else {
        Close("The client closed the connection");
    }
}

void Connection::SendStatus(const ResponseCode& code) {
    Message message;
    message.version(11);
    message.result(static_cast<unsigned>(code.code));
    message.reason(code.reason);
    for (const auto& header : core->headers) message.set(header.name, header.value);
    message.content_length(0);
    responded = false;
    Deliver(std::move(message), true);
}

void Connection::Dispatch() {
    phase = Phase::Handling;
    responded = false;
    continueSent = false;
    closeAfterResponse = false;
    busy = true;
    core->EnterBusy();

    const auto& head = parser->get();
    version = head.version() >= 11 ? 11 : 10;
    expectContinue = version == 11 && beast::iequals(head[bhttp::field::expect], "100-continue");
    uint64_t seq;
    {
        std::lock_guard lock(channelMutex);
        seq = ++channelSeq;
        bodyState = parser->is_done() ? BodyState::Ended : BodyState::Open;
        failure.clear();
        availBegin = availEnd = 0;
        fillRequested = false;
    }
    std::string method(head.method_string());
    std::string url(head.target());
    auto self = shared_from_this();
    auto request =
        MakeRef<RequestImpl>(self, seq, method, url, std::string(head[bhttp::field::content_type]),
                             ContentLength(*parser));
    auto response = MakeRef<ResponseImpl>(self, core, version);
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
        Service::Log(core->logger, LogLevel::Error, "Handling %1 %2 failed: %3", method, url,
                     e.what());
    } catch (...) {
        Service::Log(core->logger, LogLevel::Error, "Handling %1 %2 failed: %3", method, url,
                     "unknown exception");
    }
    // The handler may have left the exchange half done; start afresh on a new connection.
    closeAfterResponse = true;
    try {
        response->SendFailure();
    } catch (const std::exception&) {
        // Already closed: nothing to answer.
    }
}

int64_t Connection::Read(uint64_t seq, char* out, size_t size) {
    if (tServiceThread != nullptr) {
        throw IOException("Request bodies cannot be read on the HTTP service's threads");
    }
    if (size == 0) return 0;
    std::unique_lock lock(channelMutex);
    // A later exchange began, so this one's body had ended.
    if (seq != channelSeq) return -1;
    for (;;) {
        if (availBegin < availEnd) {
            size_t n = std::min(size, availEnd - availBegin);
            std::memcpy(out, chunk.data() + availBegin, n);
            availBegin += n;
            return static_cast<int64_t>(n);
        }
        if (bodyState == BodyState::Ended) return -1;
        if (bodyState == BodyState::Failed) throw IOException(failure);
        if (!fillRequested) {
            fillRequested = true;
            if (!core->Post(executor, [self = shared_from_this(), seq] { self->Fill(seq); })) {
                bodyState = BodyState::Failed;
                failure = "The HTTP service has stopped";
                continue;
            }
        }
        channelChanged.wait(lock);
    }
}

void Connection::Fill(uint64_t seq) {
    if (closed || responded || readInFlight) return;
    {
        std::lock_guard lock(channelMutex);
        if (seq != channelSeq || bodyState != BodyState::Open) return;
    }
    if (expectContinue && !continueSent) {
        // The client holds the body back until told to go on; told only now that
        // someone wants it, so a refused request never has its body sent.
        continueSent = true;
        writeInFlight = true;
        ArmWriteTimer();
        net::async_write(socket, net::buffer(kContinue.data(), kContinue.size()),
                         [self = shared_from_this()](const beast::error_code& ec, size_t) {
                             self->OnContinueWritten(ec);
                         });
        return;
    }
    ReadBody();
}

void Connection::OnContinueWritten(const beast::error_code& ec) {
    writeInFlight = false;
    CancelWriteTimer();
    if (closed) return;
    if (ec) {
        Close("The client closed the connection");
        return;
    }
    if (queued) {
        Message message = std::move(*queued);
        queued.reset();
        WriteResponse(std::move(message), queuedKeepAlive);
        return;
    }
    if (!responded) ReadBody();
}

void Connection::ReadBody() {
    readInFlight = true;
    auto& body = parser->get().body();
    body.data = chunk.data();
    body.size = chunk.size();
    ArmReadTimer(core->limits.bodyTimeout, Wait::Body);
    bhttp::async_read_some(
        socket, buffer, *parser,
        [self = shared_from_this()](beast::error_code ec, size_t) { self->OnBodyRead(ec); });
}

void Connection::OnBodyRead(beast::error_code ec) {
    readInFlight = false;
    if (closed) return;
    if (phase == Phase::Draining) {
        Drain();
        return;
    }
    CancelReadTimer();
    // The answer went out meanwhile; the body is no longer wanted.
    if (responded) return;
    if (ec == bhttp::error::need_buffer) ec = {};
    if (ec) {
        bool peerGone =
            ec.category() != bhttp::make_error_code(bhttp::error::bad_target).category() ||
            ec == bhttp::error::end_of_stream || ec == bhttp::error::partial_message;
        if (peerGone) {
            FailBody("The client closed the connection");
            Close("The client closed the connection");
        } else {
            // Let the handler answer; the stream cannot be trusted for another request.
            FailBody("Malformed request body: " + ec.message());
            closeAfterResponse = true;
        }
        return;
    }
    size_t produced = chunk.size() - parser->get().body().size;
    bool ended = parser->is_done();
    if (produced == 0 && !ended) {
        ReadBody();  // framing only, such as a chunk header
        return;
    }
    PublishBody(produced, ended);
}

void Connection::PublishBody(size_t size, bool ended) {
    {
        std::lock_guard lock(channelMutex);
        availBegin = 0;
        availEnd = size;
        if (ended) bodyState = BodyState::Ended;
        fillRequested = false;
    }
    channelChanged.notify_all();
}

void Connection::FailBody(const std::string& reason) {
    {
        std::lock_guard lock(channelMutex);
        if (bodyState == BodyState::Open) {
            bodyState = BodyState::Failed;
            failure = reason;
            availBegin = availEnd = 0;
        }
        fillRequested = false;
    }
    channelChanged.notify_all();
}

void Connection::Deliver(Message message, bool forceClose) {
    if (closed || responded) return;
    responded = true;
    {
        // The chunk is the drain's scratch space from here on.
        std::lock_guard lock(channelMutex);
        if (bodyState == BodyState::Open) {
            bodyState = BodyState::Failed;
            failure = "The response has already been sent";
        }
        availBegin = availEnd = 0;
        fillRequested = false;
    }
    channelChanged.notify_all();

    // Another request may follow only when this one was read to its end.
    bool keepAlive = !forceClose && !closeAfterResponse && !core->Stopping() && parser &&
                     parser->is_header_done() && parser->keep_alive() && parser->is_done() &&
                     !readInFlight;
    message.keep_alive(keepAlive);
    if (writeInFlight) {
        queued = std::move(message);
        queuedKeepAlive = keepAlive;
        return;
    }
    WriteResponse(std::move(message), keepAlive);
}

void Connection::WriteResponse(Message message, bool keepAlive) {
    phase = Phase::Writing;
    outgoing = std::move(message);
    writeInFlight = true;
    ArmWriteTimer();
    bhttp::async_write(socket, *outgoing,
                       [self = shared_from_this(), keepAlive](const beast::error_code& ec, size_t) {
                           self->OnResponseWritten(ec, keepAlive);
                       });
}

void Connection::OnResponseWritten(const beast::error_code& ec, bool keepAlive) {
    writeInFlight = false;
    CancelWriteTimer();
    outgoing.reset();
    LeaveBusy();
    if (closed) return;
    if (ec) {
        Close("The client closed the connection");
    } else if (keepAlive) {
        AwaitNextRequest();
    } else {
        BeginClosing();
    }
}

void Connection::AwaitNextRequest() {
    parser.reset();
    if (buffer.size() > 0) {  // pipelined: the next head has begun
        ArmReadTimer(core->limits.headerTimeout, Wait::Head);
        ReadHead();
        return;
    }
    phase = Phase::Idle;
    ArmReadTimer(core->limits.idleTimeout, Wait::Idle);
    // Waits without reading, so the head's time-out starts at its first byte.
    socket.async_wait(tcp::socket::wait_read,
                      [self = shared_from_this()](const beast::error_code& ec) {
                          if (self->closed) return;
                          if (ec) {
                              self->Close("The client closed the connection");
                              return;
                          }
                          self->ArmReadTimer(self->core->limits.headerTimeout, Wait::Head);
                          self->ReadHead();
                      });
}

void Connection::BeginClosing() {
    phase = Phase::Draining;
    beast::error_code ignored;
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    drained = 0;
    ArmReadTimer(kDrainTime, Wait::Drain);
    if (!readInFlight) Drain();  // else the body read in flight carries on draining
}

void Connection::Drain() {
    buffer.consume(buffer.size());
    readInFlight = true;
    socket.async_read_some(net::buffer(chunk),
                           [self = shared_from_this()](const beast::error_code& ec, size_t n) {
                               self->readInFlight = false;
                               if (self->closed) return;
                               self->drained += n;
                               if (ec || self->drained >= kDrainBytes) {
                                   self->Close("The connection is closed");
                               } else {
                                   self->Drain();
                               }
                           });
}

void Connection::Close(const std::string& reason) {
    if (closed) return;
    closed = true;
    dead.store(true);
    phase = Phase::Closed;
    CancelReadTimer();
    CancelWriteTimer();
    beast::error_code ignored;
    socket.close(ignored);
    FailBody(reason);
    LeaveBusy();
    core->Unregister(id);
}

// ---- Core -------------------------------------------------------------------------

void Core::Adopt(const std::vector<int>& descriptors) {
    for (size_t i = 0; i < descriptors.size(); ++i) {
        int fd = descriptors[i];
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            int error = errno;
            for (size_t j = i; j < descriptors.size(); ++j) ::close(descriptors[j]);
            throw SystemError("Cannot adopt listening socket", std::to_string(fd), error);
        }
        tcp protocol = address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
        tcp::acceptor acceptor(acceptStrand);
        beast::error_code ec;
        acceptor.assign(protocol, fd, ec);
        if (!ec) acceptor.non_blocking(true, ec);
        if (ec) {
            if (!acceptor.is_open()) ::close(fd);
            for (size_t j = i + 1; j < descriptors.size(); ++j) ::close(descriptors[j]);
            throw IOException("Cannot adopt listening socket: " + ec.message());
        }
        listeners.push_back({std::move(acceptor), protocol});
    }
}

void Core::Start() {
    std::lock_guard lock(mutex);
    if (started || stopped) return;
    started = true;
    running = true;
    work.emplace(ioc.get_executor());
    for (int i = 0; i < kIoThreads; ++i) {
        threads.emplace_back([this] {
            tServiceThread = this;
            for (;;) {
                try {
                    ioc.run();
                    break;
                } catch (const std::exception& e) {
                    // One failed completion must not take every connection down with it.
                    Service::Log(logger, LogLevel::Error, "HTTP service thread: %1", e.what());
                }
            }
            std::lock_guard exitLock(mutex);
            ++exited;
            changed.notify_all();
        });
    }
    net::post(acceptStrand, [this] { ArmAll(); });
}

void Core::ArmAll() {
    for (size_t i = 0; i < listeners.size(); ++i) Arm(i);
}

void Core::Arm(size_t index) {
    Listener& listener = listeners[index];
    if (stopping || retryPending || listener.waiting || !listener.acceptor.is_open()) return;
    {
        // At the limit new connections wait in the kernel's backlog; Unregister
        // resumes accepting.
        std::lock_guard lock(mutex);
        if (connections.size() >= limits.maxConnections) return;
    }
    listener.waiting = true;
    listener.acceptor.async_wait(
        tcp::acceptor::wait_read,
        [this, index](const beast::error_code& ec) { OnAcceptable(index, ec); });
}

void Core::OnAcceptable(size_t index, const beast::error_code& ec) {
    Listener& listener = listeners[index];
    listener.waiting = false;
    if (stopping || ec == net::error::operation_aborted) return;
    if (ec) {
        Service::Log(logger, LogLevel::Warning, "Cannot accept connections: %1", ec.message());
        RetryLater();
        return;
    }
    for (;;) {
        {
            std::lock_guard lock(mutex);
            if (connections.size() >= limits.maxConnections) return;
        }
        int fd = ::accept4(listener.acceptor.native_handle(), nullptr, nullptr,
                           SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            Open(fd, listener.protocol);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        Service::Log(logger, LogLevel::Warning, "Cannot accept a connection: %1",
                     std::strerror(errno));
        RetryLater();
        return;
    }
    Arm(index);
}

void Core::RetryLater() {
    if (retryPending) return;
    retryPending = true;
    acceptRetry.expires_after(kAcceptRetry);
    acceptRetry.async_wait([this](const beast::error_code&) {
        retryPending = false;
        ArmAll();
    });
}

void Core::Open(int fd, const tcp& protocol) {
    tcp::socket socket(net::make_strand(ioc));
    beast::error_code ec;
    socket.assign(protocol, fd, ec);
    if (ec) {
        ::close(fd);
        return;
    }
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard lock(mutex);
        uint64_t id = ++nextId;
        // Connections share ownership of the core, never the reverse: the io_context
        // must outlive every socket, and a request may outlive the service.
        connection = std::make_shared<Connection>(shared_from_this(), id, std::move(socket));
        connections.emplace(id, connection);
    }
    net::post(connection->Executor(), [connection] { connection->Start(); });
}

void Core::Unregister(uint64_t id) {
    {
        std::lock_guard lock(mutex);
        connections.erase(id);
        changed.notify_all();
    }
    if (!stopping) net::post(acceptStrand, [this] { ArmAll(); });
}

std::vector<std::shared_ptr<Connection>> Core::Snapshot() {
    std::vector<std::shared_ptr<Connection>> out;
    std::lock_guard lock(mutex);
    for (auto& [id, weak] : connections) {
        if (auto connection = weak.lock()) out.push_back(std::move(connection));
    }
    return out;
}

void Core::Stop() {
    std::lock_guard stopLock(stopMutex);
    {
        std::lock_guard lock(mutex);
        if (stopped) return;
        stopped = true;
    }
    stopping = true;
    if (threads.empty()) {  // never started: nothing runs, nothing to wait for
        listeners.clear();
        SetHandler(nullptr);
        return;
    }

    std::promise<void> acceptorsClosed;
    auto acceptorsDone = acceptorsClosed.get_future();
    net::post(acceptStrand, [this, &acceptorsClosed] {
        for (auto& listener : listeners) {
            beast::error_code ignored;
            listener.acceptor.close(ignored);
        }
        acceptRetry.cancel();
        acceptorsClosed.set_value();
    });
    acceptorsDone.wait();

    // Idle keep-alive connections have nothing to finish.
    for (auto& connection : Snapshot()) {
        net::post(connection->Executor(), [connection] { connection->CloseIfIdle(); });
    }
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, limits.stopGrace, [this] { return busy == 0; });
    }
    for (auto& connection : Snapshot()) {
        net::post(connection->Executor(),
                  [connection] { connection->Close("The HTTP service is stopping"); });
    }
    bool drained;
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, kSettleWait, [this] { return connections.empty(); });
        running = false;  // from now on pool threads cannot queue work
        work.reset();
        drained = changed.wait_for(lock, kSettleWait, [this] { return exited == threads.size(); });
    }
    if (!drained) {
        Service::Log(logger, LogLevel::Warning, "HTTP service threads did not settle; forcing");
        ioc.stop();
    }
    for (auto& thread : threads) thread.join();

    // Nothing runs now; close what is left here and let the queued completions find
    // their connections closed, releasing what they hold.
    for (auto& connection : Snapshot()) connection->Close("The HTTP service is stopping");
    ioc.restart();
    ioc.poll();
    SetHandler(nullptr);
}

class HttpServiceImpl final : public HttpService {
  public:
    explicit HttpServiceImpl(std::shared_ptr<Core> core) : core(std::move(core)) {}
    ~HttpServiceImpl() override { Stop(); }

    void SetRequestHandler(const Ref<RequestHandler>& handler) override {
        core->SetHandler(handler);
    }
    void Start() override { core->Start(); }
    void Stop() override {
        if (tServiceThread == core.get()) {
            // A service thread cannot join itself; stop from a thread of its own.
            std::thread([core = core] { core->Stop(); }).detach();
            return;
        }
        core->Stop();
    }

  private:
    const std::shared_ptr<Core> core;
};

}  // namespace

std::vector<ResponseHeaderDefinition> GetDefaultResponseHeadersDefinitions() {
    return {{"Server", "tessard"}, {"Cache-Control", "no-store"}};
}

Ref<HttpService> CreateHttpSvc(const Ref<System::ServerSocket>& socket,
                               const Ref<Service::Logger>& logger,
                               const std::vector<ResponseHeaderDefinition>& headers,
                               const HttpLimits& limits) {
    auto core = std::make_shared<Core>(logger, headers, limits);
    core->Adopt(socket->TakeDescriptors());
    return MakeRef<HttpServiceImpl>(std::move(core));
}

}  // namespace Pelinor::Http
