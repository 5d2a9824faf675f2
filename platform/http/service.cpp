// The HTTP service: its listeners, its connections on the event loops, start and stop.
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/string.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <future>
#include <limits>

#include "platform/base/exceptions.h"
#include "platform/http/connection.h"

namespace Pelinor::Http {

namespace net = boost::asio;
using tcp = net::ip::tcp;
using Service::Log;
using Service::LogLevel;
namespace beast = boost::beast;
using System::EventLoops;
using System::UniqueFd;

namespace {

// Pause before accepting again after the process ran out of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptRetry{100};
// Stop's bound on waiting for connections that were told to close.
constexpr std::chrono::milliseconds kSettleWait{2000};

HttpLimits Sanitize(HttpLimits limits) {
    limits.maxConnections = std::max<size_t>(limits.maxConnections, 1);
    limits.maxHeaderBytes =
        std::clamp<size_t>(limits.maxHeaderBytes, 256, std::numeric_limits<uint32_t>::max() / 2);
    return limits;
}

// Runs `action` on `executor` and waits until it and everything it queued there has run.
template <typename Action>
void RunOn(const Executor& executor, Action action) {
    std::promise<void> done;
    net::post(executor, [&] {
        action();
        net::post(executor, [&] { done.set_value(); });
    });
    done.get_future().wait();
}

}  // namespace

// ---- Listener ---------------------------------------------------------------------

namespace {

tcp ProtocolOf(const UniqueFd& fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw SystemError("Cannot adopt listening socket", std::to_string(fd.Get()), errno);
    }
    return address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4();
}

}  // namespace

Listener::Listener(Core& core, UniqueFd fd)
    : core(core),
      executor(EventLoops::Get().Next()),
      protocol(ProtocolOf(fd)),
      acceptor(executor),
      retry(executor) {
    boost::system::error_code ec;
    acceptor.assign(protocol, fd.Get(), ec);
    if (ec) throw IOException("Cannot adopt listening socket: " + ec.message());
    fd.Release();
    acceptor.non_blocking(true, ec);
    if (ec) throw IOException("Cannot adopt listening socket: " + ec.message());
    if (!identity.Usable()) {
        Log(core.logger, LogLevel::Warning, "Cannot learn who connects: %1", identity.Problem());
    }
}

void Listener::Wake() {
    net::post(executor, [this] { Arm(); });
}

void Listener::Close() {
    RunOn(executor, [this] {
        boost::system::error_code ignored;
        acceptor.close(ignored);
        retry.cancel();
    });
}

void Listener::Arm() {
    // At the limit new connections wait in the kernel's backlog until one closes.
    if (core.Stopping() || retryPending || waiting || !acceptor.is_open() || core.Full()) return;
    // Whatever waits in the backlog is taken first: readiness that arrived while nobody
    // waited is not reported again.
    while (!core.Full()) {
        // accept4, not the acceptor's accept: the socket must be close-on-exec from the
        // start, or a plugin launched meanwhile would inherit it.
        UniqueFd fd(
            ::accept4(acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd) {
            // Asked at once: the longer the wait, the likelier the client has closed its end.
            auto clientUid = identity.UidOfPeer(fd.Get());
            core.Open(std::move(fd), protocol, clientUid);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        Log(core.logger, LogLevel::Warning, "Cannot accept a connection: %1", std::strerror(errno));
        RetryLater();
        return;
    }
    if (core.Full()) return;
    waiting = true;
    acceptor.async_wait(tcp::acceptor::wait_read, [this](const boost::system::error_code& ec) {
        waiting = false;
        if (core.Stopping() || ec == net::error::operation_aborted) return;
        if (ec) {
            Log(core.logger, LogLevel::Warning, "Cannot accept connections: %1", ec.message());
            RetryLater();
            return;
        }
        Arm();
    });
}

void Listener::RetryLater() {
    if (retryPending) return;
    retryPending = true;
    retry.expires_after(kAcceptRetry);
    retry.async_wait([this](const boost::system::error_code&) {
        retryPending = false;
        Arm();
    });
}

// ---- Core -------------------------------------------------------------------------

namespace {

std::string RenderHeaders(const std::vector<ResponseHeaderDefinition>& headers) {
    std::string out;
    for (const auto& [name, value] : headers) out += name + ": " + value + "\r\n";
    return out;
}

}  // namespace

Core::Core(Ref<Service::Logger> logger, const std::vector<ResponseHeaderDefinition>& headers,
           const HttpLimits& limits)
    : logger(std::move(logger)),
      limits(Sanitize(limits)),
      headers(headers),
      renderedHeaders(RenderHeaders(this->headers)) {
    EventLoops& all = EventLoops::Get(this->limits.maxLoops);
    for (size_t i = 0; i < all.Size(); ++i)
        loops.push_back(std::make_shared<LoopConnections>(all.At(i)));
}

Core::~Core() = default;

void Core::Adopt(std::vector<UniqueFd> descriptors) {
    for (auto& fd : descriptors)
        listeners.push_back(std::make_unique<Listener>(*this, std::move(fd)));
}

void Core::SetHandler(const Ref<RequestHandler>& h) {
    std::lock_guard lock(mutex);
    handler = h;
}

void Core::Render(std::string& out, const Answer& answer, unsigned version, bool keepAlive) const {
    char code[16];
    auto end = std::to_chars(code, code + sizeof code, answer.status.code).ptr;
    out.assign(version >= 11 ? "HTTP/1.1 " : "HTTP/1.0 ");
    out.append(code, end).append(" ").append(answer.status.reason).append("\r\n");
    if (answer.headers.empty()) {
        out += renderedHeaders;
    } else {  // a handler's header replaces the service's of the same name
        for (const auto& header : headers) {
            if (std::none_of(answer.headers.begin(), answer.headers.end(), [&](const auto& own) {
                    return beast::iequals(own.name, header.name);
                }))
                out.append(header.name).append(": ").append(header.value).append("\r\n");
        }
        out += RenderHeaders(answer.headers);
    }
    out += "Content-Length: 0\r\n";
    if (version >= 11 && !keepAlive) out += "Connection: close\r\n";
    if (version < 11 && keepAlive) out += "Connection: keep-alive\r\n";
    out += "\r\n";
}

void Core::Start() {
    {
        std::lock_guard lock(mutex);
        if (started || stopped) return;
        started = true;
    }
    for (auto& listener : listeners) listener->Wake();
}

bool Core::Full() {
    std::lock_guard lock(mutex);
    return connections.size() >= limits.maxConnections;
}

void Core::Open(UniqueFd fd, const tcp& protocol, std::optional<uint32_t> clientUid) {
    size_t loop = EventLoops::Get().NextIndex();
    auto executor = EventLoops::Get().At(loop);
    TcpSocket socket(executor);
    boost::system::error_code ec;
    socket.assign(protocol, fd.Get(), ec);
    if (ec) return;
    fd.Release();
    std::shared_ptr<Connection<TcpSocket>> connection;
    {
        std::lock_guard lock(mutex);
        // Connections share ownership of the core, never the reverse: a request may outlive
        // the service. Each takes the handler it serves once.
        connection = std::make_shared<Connection<TcpSocket>>(shared_from_this(), *loops[loop],
                                                             std::move(socket), handler, clientUid);
        connections.emplace(connection.get(), connection);
    }
    net::co_spawn(executor, Connection<TcpSocket>::Run(connection), net::detached);
}

void Core::Unregister(const ConnectionBase* connection) {
    bool wasFull;
    {
        std::lock_guard lock(mutex);
        wasFull = connections.size() >= limits.maxConnections;
        connections.erase(connection);
        changed.notify_all();
    }
    if (wasFull && !Stopping()) {
        for (auto& listener : listeners) listener->Wake();
    }
}

template <typename Action>
void Core::ForEachConnection(Action action) {
    std::vector<std::shared_ptr<ConnectionBase>> live;
    {
        std::lock_guard lock(mutex);
        for (auto& [key, weak] : connections) {
            if (auto connection = weak.lock()) live.push_back(std::move(connection));
        }
    }
    for (auto& connection : live) {
        net::post(connection->GetExecutor(), [connection, action] { action(*connection); });
    }
}

bool Core::WaitUntilNoConnections(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, limit, [this] { return connections.empty(); });
}

void Core::Stop() {
    if (EventLoops::Current()) {
        throw std::logic_error("The HTTP service cannot be stopped from its own event loop");
    }
    std::lock_guard stopLock(stopMutex);
    {
        std::lock_guard lock(mutex);
        if (stopped) return;
        stopped = true;
    }
    stopping = true;
    for (auto& listener : listeners) listener->Close();
    // Idle keep-alive connections have nothing to finish; busy ones close after their answer.
    ForEachConnection([](ConnectionBase& connection) { connection.CloseIfIdle(); });
    if (!WaitUntilNoConnections(limits.stopGrace)) {
        ForEachConnection([](ConnectionBase& connection) { connection.Close(); });
        if (!WaitUntilNoConnections(kSettleWait)) {
            Log(logger, LogLevel::Warning, "HTTP connections did not settle in time");
        }
    }
    SetHandler(nullptr);
}

// ---- The service ------------------------------------------------------------------

namespace {

class HttpServiceImpl final : public HttpService {
  public:
    explicit HttpServiceImpl(std::shared_ptr<Core> core) : core(std::move(core)) {}
    ~HttpServiceImpl() override { Stop(); }

    void SetRequestHandler(const Ref<RequestHandler>& handler) override {
        core->SetHandler(handler);
    }
    void Start() override { core->Start(); }
    void Stop() override { core->Stop(); }

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
