// What the parts of the HTTP service share: the service's state (Core), its connections
// and the objects of one exchange. Internal to the platform.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/http/http.h"
#include "platform/http/peer_identity.h"

namespace Pelinor::Http {

using Message = boost::beast::http::response<boost::beast::http::empty_body>;

class Connection;
class Listener;

// After an answer that closes the connection, unread input is drained this long and this
// far, so the client reads the answer instead of a reset.
constexpr std::chrono::milliseconds kLingerTime{500};
constexpr size_t kLingerBytes = 64 * 1024;

// Owned by the service and shared by its connections, which may outlive it briefly.
class Core : public std::enable_shared_from_this<Core> {
  public:
    Core(Ref<Service::Logger> logger, std::vector<ResponseHeaderDefinition> headers,
         const HttpLimits& limits);
    ~Core();

    void Adopt(std::vector<System::UniqueFd> descriptors);
    void SetHandler(const Ref<RequestHandler>& h);
    Ref<RequestHandler> GetHandler();
    void Start();
    void Stop();

    // A new socket from a listener, whose client the kernel said is `clientUid`: becomes a
    // connection on one of the event loops.
    void Open(System::UniqueFd fd, const boost::asio::ip::tcp& protocol,
              std::optional<uint32_t> clientUid);
    // Called by a connection as its life ends.
    void Unregister(const Connection* connection);
    bool Full();
    bool Stopping() const { return stopping.load(std::memory_order_relaxed); }

    // An answer with the service's default headers.
    Message MakeMessage(const ResponseCode& code, unsigned version) const;

    const Ref<Service::Logger> logger;
    const std::vector<ResponseHeaderDefinition> headers;
    const HttpLimits limits;

  private:
    // Posts `action` to every connection's own loop.
    template <typename Action>
    void ForEachConnection(Action action);
    bool WaitUntilNoConnections(std::chrono::milliseconds limit);

    std::vector<std::unique_ptr<Listener>> listeners;
    std::atomic<bool> stopping{false};
    std::mutex stopMutex;  // one Stop at a time
    std::mutex mutex;      // guards everything below
    std::condition_variable changed;
    Ref<RequestHandler> handler;
    bool started = false;
    bool stopped = false;
    std::unordered_map<const Connection*, std::weak_ptr<Connection>> connections;
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
    const boost::asio::any_io_executor executor;
    boost::asio::ip::tcp protocol;
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer retry;
    PeerIdentity identity;  // asked once per accepted connection
    bool waiting = false;
    bool retryPending = false;
};

Ref<Request> MakeRequest(std::shared_ptr<Connection> connection, uint64_t exchange,
                         const boost::beast::http::request_header<>& head,
                         std::optional<uint64_t> contentLength, std::optional<uint32_t> clientUid);
// The answer of an exchange, delivered to its connection when sent or released.
Ref<Response> MakeResponse(std::shared_ptr<Connection> connection, uint64_t exchange,
                           unsigned version);
// After the handler failed: 500 unless an answer is already on its way. Takes only what
// MakeResponse made.
void SendFailure(Response& response);

}  // namespace Pelinor::Http
