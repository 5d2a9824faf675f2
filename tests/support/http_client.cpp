#include "tests/support/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace TessardTest {

namespace {

using Clock = std::chrono::steady_clock;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return {};
    size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

int RemainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<int64_t>(0, left.count()));
}

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Parses a complete head; false when it is not a well-formed status line and fields.
bool ParseHead(const std::string& head, HttpReply& reply) {
    size_t lineEnd = head.find("\r\n");
    std::string statusLine = head.substr(0, lineEnd);
    if (statusLine.rfind("HTTP/1.", 0) != 0 || statusLine.size() < 12) return false;
    try {
        reply.status = std::stoi(statusLine.substr(9, 3));
    } catch (const std::exception&) {
        return false;
    }
    reply.reason = statusLine.size() > 13 ? statusLine.substr(13) : std::string();
    size_t pos = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
    while (pos < head.size()) {
        size_t end = head.find("\r\n", pos);
        if (end == std::string::npos) end = head.size();
        std::string line = head.substr(pos, end - pos);
        pos = end + 2;
        if (line.empty()) continue;
        size_t colon = line.find(':');
        if (colon == std::string::npos) return false;
        reply.headers[Lower(Trim(line.substr(0, colon)))] = Trim(line.substr(colon + 1));
    }
    return true;
}

}  // namespace

RawHttpConnection::RawHttpConnection(uint16_t port) {
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    sockaddr_in address = Loopback(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int error = errno;
        Close();
        throw std::runtime_error("connect to port " + std::to_string(port) + ": " +
                                 std::strerror(error));
    }
    // Requests are sent in deliberate pieces; each should leave at once.
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

RawHttpConnection::~RawHttpConnection() {
    Close();
}

void RawHttpConnection::Close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool RawHttpConnection::Send(const std::string& bytes) {
    size_t done = 0;
    while (fd >= 0 && done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return fd >= 0;
}

std::optional<HttpReply> RawHttpConnection::ReadReply(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    // Appends what arrives; false on close, error or time-out.
    auto fill = [&]() {
        if (fd < 0) return false;
        pollfd p{fd, POLLIN, 0};
        int ready = ::poll(&p, 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) return true;
        if (ready <= 0) return false;
        char chunk[4096];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) return true;
        if (n <= 0) return false;
        pending.append(chunk, static_cast<size_t>(n));
        return true;
    };

    size_t headEnd;
    while ((headEnd = pending.find("\r\n\r\n")) == std::string::npos) {
        if (!fill()) return std::nullopt;
    }
    HttpReply reply;
    if (!ParseHead(pending.substr(0, headEnd), reply)) return std::nullopt;
    size_t bodyStart = headEnd + 4;

    bool noBody =
        (reply.status >= 100 && reply.status < 200) || reply.status == 204 || reply.status == 304;
    auto length = reply.headers.find("content-length");
    if (noBody) {
        pending.erase(0, bodyStart);
        return reply;
    }
    if (length != reply.headers.end()) {
        size_t size = 0;
        try {
            size = std::stoul(length->second);
        } catch (const std::exception&) {
            return std::nullopt;
        }
        while (pending.size() < bodyStart + size) {
            if (!fill()) return std::nullopt;
        }
        reply.body = pending.substr(bodyStart, size);
        pending.erase(0, bodyStart + size);
        return reply;
    }
    // No length: the body runs to the end of the connection.
    while (fill()) {
    }
    reply.body = pending.substr(bodyStart);
    pending.clear();
    return reply;
}

bool RawHttpConnection::WaitClosed(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    pending.clear();
    while (fd >= 0) {
        pollfd p{fd, POLLIN, 0};
        int ready = ::poll(&p, 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char chunk[4096];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return true;
    }
    return true;
}

std::string PostRequest(const std::string& target, const std::string& body,
                        const std::string& contentType, bool keepAlive) {
    std::string request = "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (!contentType.empty()) request += "Content-Type: " + contentType + "\r\n";
    request += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    if (!keepAlive) request += "Connection: close\r\n";
    request += "\r\n";
    return request + body;
}

std::optional<HttpReply> PostOnce(uint16_t port, const std::string& target, const std::string& body,
                                  const std::string& contentType) {
    RawHttpConnection connection(port);
    if (!connection.Send(PostRequest(target, body, contentType, false))) return std::nullopt;
    return connection.ReadReply();
}

uint16_t FreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        int error = errno;
        ::close(fd);
        throw std::runtime_error(std::string("bind: ") + std::strerror(error));
    }
    ::close(fd);
    return ntohs(address.sin_port);
}

}  // namespace TessardTest
