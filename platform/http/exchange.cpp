// The request and response objects that the handler, and the jobs it queues, hold.
#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/string.hpp>
#include <cctype>
#include <limits>
#include <mutex>

#include "platform/base/exceptions.h"
#include "platform/http/connection.h"

namespace Pelinor::Http {

namespace {

namespace bhttp = boost::beast::http;

class RequestImpl final : public Request {
  public:
    RequestImpl(std::shared_ptr<Connection> connection, uint64_t exchange,
                const bhttp::request_header<>& head, std::optional<uint64_t> length,
                std::optional<uint32_t> clientUid)
        : connection(std::move(connection)),
          exchange(exchange),
          method(head.method_string()),
          url(head.target()),
          contentType(head[bhttp::field::content_type]),
          length(length),
          clientUid(clientUid) {}

    std::string GetMethod() const override { return method; }
    void GetContentType(std::string& out) const override { out = contentType; }
    std::string GetUrl() const override { return url; }
    bool GetContentLength(int64_t& out) const override {
        if (!length) return false;
        out = static_cast<int64_t>(std::min<uint64_t>(
            *length, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
        return true;
    }
    std::optional<uint32_t> GetClientUid() const override { return clientUid; }
    Task<int64_t> Read(char* buffer, size_t size) override {
        return connection->ReadBody(exchange, buffer, size);
    }

  private:
    const std::shared_ptr<Connection> connection;
    const uint64_t exchange;
    const std::string method;
    const std::string url;
    const std::string contentType;
    const std::optional<uint64_t> length;
    const std::optional<uint32_t> clientUid;
};

bool IsToken(std::string_view name) {
    static constexpr std::string_view kSpecials = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               kSpecials.find(c) != std::string_view::npos;
    });
}

}  // namespace

class ResponseImpl final : public Response {
  public:
    // Until the handler sets a code, the answer is 500.
    ResponseImpl(std::shared_ptr<Connection> connection, uint64_t exchange, unsigned version)
        : connection(std::move(connection)),
          exchange(exchange),
          message(
              this->connection->Owner().MakeMessage(ResponseCode::InternalServerError, version)) {}

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
        SetCodeLocked(c);
    }

    void SetHeader(const std::string& name, const std::string& value) override {
        // A line break in either would let the caller forge headers.
        if (!IsToken(name) ||
            value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
            throw InvalidArgumentException("Invalid response header " + name);
        }
        std::lock_guard lock(mutex);
        message.set(name, value);  // replaces a header of the same name, whatever its case
    }

    void Send() override {
        std::lock_guard lock(mutex);
        SendLocked();
    }

    void SendFailure() {
        std::lock_guard lock(mutex);
        if (sent) return;
        SetCodeLocked(ResponseCode::InternalServerError);
        SendLocked();
    }

  private:
    void SetCodeLocked(const ResponseCode& c) {
        message.result(static_cast<unsigned>(c.code));
        message.reason(c.reason);
    }

    void SendLocked() {
        if (sent) return;
        sent = true;
        if (connection->Gone()) throw IOException("The client connection is closed");
        // On the connection's own loop this delivers at once; from elsewhere it is queued there.
        boost::asio::dispatch(connection->Executor(), [connection = connection, exchange = exchange,
                                                       message = std::move(message)]() mutable {
            connection->Deliver(exchange, std::move(message));
        });
    }

    const std::shared_ptr<Connection> connection;
    const uint64_t exchange;
    std::mutex mutex;  // guards what follows: the handler and its job may both hold the response
    Message message;
    bool sent = false;
};

Ref<Request> MakeRequest(std::shared_ptr<Connection> connection, uint64_t exchange,
                         const bhttp::request_header<>& head, std::optional<uint64_t> length,
                         std::optional<uint32_t> clientUid) {
    return MakeRef<RequestImpl>(std::move(connection), exchange, head, length, clientUid);
}

Ref<Response> MakeResponse(std::shared_ptr<Connection> connection, uint64_t exchange,
                           unsigned version) {
    return MakeRef<ResponseImpl>(std::move(connection), exchange, version);
}

void SendFailure(Response& response) {
    try {
        static_cast<ResponseImpl&>(response).SendFailure();
    } catch (const std::exception&) {
        // Already closed: nothing to answer.
    }
}

}  // namespace Pelinor::Http
