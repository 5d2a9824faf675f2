// The HTTP service: requests, responses, handlers and the server socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/logging.h"
#include "platform/base/object.h"
#include "platform/base/task.h"
#include "platform/base/unique_fd.h"
#include "platform/threads/event_loops.h"

namespace Pelinor::System {

// Listening sockets bound to every address of a host name, close-on-exec.
class ServerSocket : public ObjectImpl {
  public:
    // Throws IOException when an address cannot be bound; an IPv6 address on a host
    // without IPv6 is skipped with a warning. Port 0 picks a free port (tests).
    virtual void Listen(const std::string& host, int32_t port) = 0;
    virtual uint16_t GetPort() const = 0;
    // The listening descriptors, handed over to the HTTP service.
    virtual std::vector<UniqueFd> TakeDescriptors() = 0;
};

}  // namespace Pelinor::System

namespace Pelinor::Http {

struct ResponseCode {
    int code;
    std::string_view reason;

    static const ResponseCode Ok;
    static const ResponseCode BadRequest;
    static const ResponseCode Forbidden;
    static const ResponseCode MethodNotAllowed;
    static const ResponseCode LengthRequired;
    static const ResponseCode RequestEntityTooLarge;
    static const ResponseCode RequestHeaderFieldsTooLarge;
    static const ResponseCode InternalServerError;
    friend bool operator==(const ResponseCode& a, const ResponseCode& b) {
        return a.code == b.code;
    }
};

class Request : public ObjectImpl {
  public:
    virtual std::string GetMethod() const = 0;
    virtual void GetContentType(std::string& out) const = 0;
    virtual std::string GetUrl() const = 0;
    // Whether the request declares a Content-Length; fills `length` if so.
    virtual bool GetContentLength(int64_t& length) const = 0;
    // The user owning the client's socket, as the kernel told it when the connection was
    // accepted; none when it could not say. Nothing the client sends changes it.
    virtual std::optional<uint32_t> GetClientUid() const = 0;
    // Reads up to `size` bytes of the body that have arrived already: their number, 0 when none
    // has (or `size` is 0), -1 once the body has ended. Never waits.
    virtual int64_t ReadAvailable(char* buffer, size_t size) = 0;
    // As ReadAvailable, but when nothing has arrived the caller suspends until bytes do.
    // Throws IOException when the client stalls past the time-out or goes away, or the body
    // is chunked. Call it on the event loop that handed over the request, unless the body is
    // in memory; the buffer must stay valid until the read completes.
    virtual Task<int64_t> Read(char* buffer, size_t size) = 0;
    // Whether the whole body arrived with the head: reading it then never waits and needs
    // nothing of the connection's loop.
    virtual bool BodyInMemory() const = 0;
};

// Any thread may complete a response. One released without being sent is sent with
// the code it holds, or 500 when it holds none.
class Response : public ObjectImpl {
  public:
    virtual void SetResponseCode(const ResponseCode& code) = 0;
    virtual void SetHeader(const std::string& name, const std::string& value) = 0;
    // Queues the answer; throws IOException when the client is known to be gone.
    virtual void Send() = 0;

    void Answer(const ResponseCode& code) {
        SetResponseCode(code);
        Send();
    }
};

class RequestHandler : public ObjectImpl {
  public:
    virtual void HandlePost(const Ref<Request>& request, const Ref<Response>& response) = 0;
    virtual void HandleGet(const Ref<Request>& request, const Ref<Response>& response) = 0;
    virtual void HandleHead(const Ref<Request>& request, const Ref<Response>& response) = 0;
    virtual void HandlePut(const Ref<Request>& request, const Ref<Response>& response) = 0;
    virtual void HandleDelete(const Ref<Request>& request, const Ref<Response>& response) = 0;
    // Every other method.
    virtual void HandleOther(const Ref<Request>& request, const Ref<Response>& response) = 0;
};

// A handler that refuses every method but POST with 405 and "Allow: POST".
class RequestHandlerMixin : public RequestHandler {
  public:
    explicit RequestHandlerMixin(Ref<Service::Logger> logger) : mixinLogger(std::move(logger)) {}
    void HandleGet(const Ref<Request>& r, const Ref<Response>& a) override { Refuse(r, a); }
    void HandleHead(const Ref<Request>& r, const Ref<Response>& a) override { Refuse(r, a); }
    void HandlePut(const Ref<Request>& r, const Ref<Response>& a) override { Refuse(r, a); }
    void HandleDelete(const Ref<Request>& r, const Ref<Response>& a) override { Refuse(r, a); }
    void HandleOther(const Ref<Request>& r, const Ref<Response>& a) override { Refuse(r, a); }

  private:
    void Refuse(const Ref<Request>& request, const Ref<Response>& response);
    Ref<Service::Logger> mixinLogger;
};

struct ResponseHeaderDefinition {
    std::string name;
    std::string value;
};
std::vector<ResponseHeaderDefinition> GetDefaultResponseHeadersDefinitions();

struct HttpLimits {
    static constexpr size_t kMaxHeaderBytes = 16 * 1024;
    // Event loops, at most; fewer where the daemon may use fewer CPUs.
    static constexpr size_t kMaxLoops = System::kDefaultLoops;
    static constexpr std::chrono::milliseconds kHeaderTimeout{10'000};
    static constexpr std::chrono::milliseconds kBodyTimeout{30'000};
    static constexpr std::chrono::milliseconds kIdleTimeout{60'000};
    static constexpr size_t kMaxConnections = 1024;
    // How long Stop() lets requests already being handled finish.
    static constexpr std::chrono::milliseconds kStopGrace{5'000};

    size_t maxHeaderBytes = kMaxHeaderBytes;
    std::chrono::milliseconds headerTimeout = kHeaderTimeout;
    std::chrono::milliseconds bodyTimeout = kBodyTimeout;
    std::chrono::milliseconds idleTimeout = kIdleTimeout;
    size_t maxConnections = kMaxConnections;
    std::chrono::milliseconds stopGrace = kStopGrace;
    size_t maxLoops = kMaxLoops;
};

class HttpService : public ObjectImpl {
  public:
    virtual void SetRequestHandler(const Ref<RequestHandler>& handler) = 0;
    // Starts serving on the event loops and returns at once.
    virtual void Start() = 0;
    // Stops accepting, closes idle connections, lets requests being handled finish
    // (bounded), then closes every connection. Idempotent; never call it on an event loop.
    virtual void Stop() = 0;
};

// Takes over the socket's listening descriptors. Tests pass shorter limits.
Ref<HttpService> CreateHttpSvc(const Ref<System::ServerSocket>& socket,
                               const Ref<Service::Logger>& logger,
                               const std::vector<ResponseHeaderDefinition>& headers,
                               const HttpLimits& limits = {});

}  // namespace Pelinor::Http
