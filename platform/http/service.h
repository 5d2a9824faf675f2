// What the parts of the HTTP service share: the service's state (Core), its listeners, its
// loops' lists of connections, and the objects of one exchange. Internal to the platform.
#pragma once

#include <atomic>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/http/http.h"
#include "platform/http/peer_identity.h"

namespace Pelinor::Http {

using Clock = std::chrono::steady_clock;
using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>, Executor>;
using TcpSocket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;

// After an answer that closes the connection, unread input is drained this long and this
// far, so the client reads the answer instead of a reset.
constexpr std::chrono::milliseconds kLingerTime{500};
constexpr size_t kLingerBytes = 64 * 1024;

// What a handler answered: sent as it stands, with the service's own headers.
struct Answer {
    ResponseCode status = ResponseCode::InternalServerError;
    std::vector<ResponseHeaderDefinition> headers = {};  // beyond the service's
};

class Core;
class LoopConnections;

// A client connection as the exchanges it serves and the loop that keeps its time see it.
class ConnectionBase : public std::enable_shared_from_this<ConnectionBase> {
  public:
    ConnectionBase(std::shared_ptr<Core> core, LoopConnections& home, Executor executor)
        : core(std::move(core)), home(home), executor(std::move(executor)) {}
    virtual ~ConnectionBase() = default;

    // All below on the connection's loop.
    // Bytes of the current exchange's body that have arrived (0: none yet), -1 at its end.
    virtual int64_t ReadAvailable(uint64_t exchange, char* out, size_t size) = 0;
    // Waits for some, when none has arrived.
    virtual Task<int64_t> ReadBody(uint64_t exchange, char* out, size_t size) = 0;
    virtual void Deliver(uint64_t exchange, Answer answer) = 0;
    virtual void CloseIfIdle() = 0;
    virtual void Close() = 0;
    // Lets a connection whose time is up go, and gives back a long idle one's buffer.
    virtual void Sweep(Clock::time_point now) = 0;

    // Any thread.
    const Executor& GetExecutor() const { return executor; }
    bool Gone() const { return gone.load(std::memory_order_relaxed); }
    // An exchange whose body was handed over whole marks here that it was read to its end.
    void EndMemoryBody(uint64_t of) { memoryBodyEnded.store(of, std::memory_order_relaxed); }

  protected:
    // Keeps the service's state alive while any socket of the connection exists.
    const std::shared_ptr<Core> core;
    LoopConnections& home;
    const Executor executor;
    std::atomic<bool> gone{false};
    std::atomic<uint64_t> memoryBodyEnded{0};

  private:
    friend class LoopConnections;
    ConnectionBase* previous = nullptr;
    ConnectionBase* next = nullptr;
};

// The connections of one loop, touched only on its thread, and the sweep that keeps their
// time: one timer per loop instead of one per connection and state.
class LoopConnections : public std::enable_shared_from_this<LoopConnections> {
  public:
    explicit LoopConnections(Executor executor) : sweeper(executor) {}
    void Add(ConnectionBase* connection);
    void Remove(ConnectionBase* connection);

  private:
    void Sweep();

    Timer sweeper;
    ConnectionBase* first = nullptr;
    bool sweeping = false;
};

// A listening socket accepting onto the event loops, paused while the service is full.
class Listener {
  public:
    Listener(Core& core, System::UniqueFd fd);
    // Starts accepting, or resumes after a connection closed while full. Any thread.
    void Wake();
    // Closes the socket; returns once no accept is pending. Not on its loop.
    void Close();

  private:
    void Arm();
    void RetryLater();

    Core& core;
    const Executor executor;
    boost::asio::ip::tcp protocol;
    boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, Executor> acceptor;
    Timer retry;
    PeerIdentity identity;  // asked once per accepted connection
    bool waiting = false;
    bool retryPending = false;
};

// Owned by the service and shared by its connections, which may outlive it briefly.
class Core : public std::enable_shared_from_this<Core> {
  public:
    Core(Ref<Service::Logger> logger, const std::vector<ResponseHeaderDefinition>& headers,
         const HttpLimits& limits);
    ~Core();

    void Adopt(std::vector<System::UniqueFd> descriptors);
    void SetHandler(const Ref<RequestHandler>& h);
    void Start();
    void Stop();

    // A new socket from a listener, whose client the kernel said is `clientUid`: becomes a
    // connection on one of the event loops.
    void Open(System::UniqueFd fd, const boost::asio::ip::tcp& protocol,
              std::optional<uint32_t> clientUid);
    // Called by a connection as its life ends.
    void Unregister(const ConnectionBase* connection);
    bool Full();
    bool Stopping() const { return stopping.load(std::memory_order_relaxed); }

    // The whole answer as it goes on the wire, into `out`.
    void Render(std::string& out, const Answer& answer, unsigned version, bool keepAlive) const;

    const Ref<Service::Logger> logger;
    const HttpLimits limits;

  private:
    // Posts `action` to every connection's own loop.
    template <typename Action>
    void ForEachConnection(Action action);
    bool WaitUntilNoConnections(std::chrono::milliseconds limit);

    const std::vector<ResponseHeaderDefinition> headers;
    const std::string renderedHeaders;  // the service's own, as they go on the wire
    // By loop index; a pending sweep keeps its own, not the service's state.
    std::vector<std::shared_ptr<LoopConnections>> loops;
    std::vector<std::unique_ptr<Listener>> listeners;
    std::atomic<bool> stopping{false};
    std::mutex stopMutex;  // one Stop at a time
    std::mutex mutex;      // guards everything below
    std::condition_variable changed;
    Ref<RequestHandler> handler;
    bool started = false;
    bool stopped = false;
    std::unordered_map<const ConnectionBase*, std::weak_ptr<ConnectionBase>> connections;
};

struct RequestHead {
    std::string method;
    std::string url;
    std::string contentType;
    std::optional<uint64_t> contentLength;
    std::optional<uint32_t> clientUid;
    // The whole body, when it had arrived with the head; it stays put until the answer.
    std::optional<std::string_view> memoryBody = {};
};
Ref<Request> MakeRequest(std::shared_ptr<ConnectionBase> connection, uint64_t exchange,
                         RequestHead head);
// The answer of an exchange, delivered to its connection when sent or released.
Ref<Response> MakeResponse(std::shared_ptr<ConnectionBase> connection, uint64_t exchange);
// After the handler failed: 500 unless an answer is already on its way. Takes only what
// MakeResponse made.
void SendFailure(Response& response);

}  // namespace Pelinor::Http
