// The request and response objects that the handler, and the jobs it queues, hold.
#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/beast/core/string.hpp>
#include <cctype>
#include <cstring>
#include <limits>
#include <mutex>

#include "platform/base/exceptions.h"
#include "platform/http/service.h"

namespace Pelinor::Http {

namespace {

class RequestImpl final : public Request {
  public:
    RequestImpl(std::shared_ptr<ConnectionBase> connection, uint64_t exchange, RequestHead head)
        : connection(std::move(connection)), exchange(exchange), head(std::move(head)) {}

    std::string GetMethod() const override { return head.method; }
    void GetContentType(std::string& out) const override { out = head.contentType; }
    std::string GetUrl() const override { return head.url; }
    bool GetContentLength(int64_t& out) const override {
        if (!head.contentLength) return false;
        out = static_cast<int64_t>(std::min<uint64_t>(
            *head.contentLength, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
        return true;
    }
    std::optional<uint32_t> GetClientUid() const override { return head.clientUid; }
    bool BodyInMemory() const override { return head.memoryBody.has_value(); }

    int64_t ReadAvailable(char* buffer, size_t size) override {
        if (!head.memoryBody) return connection->ReadAvailable(exchange, buffer, size);
        // Bytes the connection leaves untouched until the answer: any thread may read them.
        std::string_view& rest = *head.memoryBody;
        if (rest.empty()) {
            connection->EndMemoryBody(exchange);
            return -1;
        }
        size_t n = std::min(size, rest.size());
        std::memcpy(buffer, rest.data(), n);
        rest.remove_prefix(n);
        return static_cast<int64_t>(n);
    }
    Task<int64_t> Read(char* buffer, size_t size) override {
        if (head.memoryBody) co_return ReadAvailable(buffer, size);
        co_return co_await connection->ReadBody(exchange, buffer, size);
    }

  private:
    const std::shared_ptr<ConnectionBase> connection;
    const uint64_t exchange;
    RequestHead head;
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
    ResponseImpl(std::shared_ptr<ConnectionBase> connection, uint64_t exchange)
        : connection(std::move(connection)), exchange(exchange) {}

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
        answer.status = c;
    }

    void SetHeader(const std::string& name, const std::string& value) override {
        // A line break in either would let the caller forge headers.
        if (!IsToken(name) ||
            value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
            throw InvalidArgumentException("Invalid response header " + name);
        }
        std::lock_guard lock(mutex);
        auto& headers = answer.headers;
        auto same = std::find_if(headers.begin(), headers.end(), [&](const auto& header) {
            return boost::beast::iequals(header.name, name);
        });
        if (same != headers.end()) {
            same->value = value;
        } else {
            headers.push_back({name, value});
        }
    }

    void Send() override {
        std::lock_guard lock(mutex);
        SendLocked();
    }

    void SendFailure() {
        std::lock_guard lock(mutex);
        if (sent) return;
        answer.status = ResponseCode::InternalServerError;
        SendLocked();
    }

  private:
    void SendLocked() {
        if (sent) return;
        sent = true;
        if (connection->Gone()) throw IOException("The client connection is closed");
        // On the connection's own loop this delivers at once; from elsewhere it is queued there.
        boost::asio::dispatch(
            connection->GetExecutor(),
            [connection = connection, exchange = exchange, answer = std::move(answer)]() mutable {
                connection->Deliver(exchange, std::move(answer));
            });
    }

    const std::shared_ptr<ConnectionBase> connection;
    const uint64_t exchange;
    std::mutex mutex;     // guards what follows: the handler and its job may both hold the response
    Http::Answer answer;  // qualified: Response::Answer is a member too
    bool sent = false;
};

Ref<Request> MakeRequest(std::shared_ptr<ConnectionBase> connection, uint64_t exchange,
                         RequestHead head) {
    return MakeRef<RequestImpl>(std::move(connection), exchange, std::move(head));
}

Ref<Response> MakeResponse(std::shared_ptr<ConnectionBase> connection, uint64_t exchange) {
    return MakeRef<ResponseImpl>(std::move(connection), exchange);
}

void SendFailure(Response& response) {
    try {
        static_cast<ResponseImpl&>(response).SendFailure();
    } catch (const std::exception&) {
        // Already closed: nothing to answer.
    }
}

}  // namespace Pelinor::Http
