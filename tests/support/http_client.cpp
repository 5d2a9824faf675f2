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
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace TessardTest {

namespace {

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Empty when the head is not a status line followed by fields.
std::optional<HttpReply> ParseHead(const std::string& head) {
    std::istringstream lines(head);
    std::string line;
    if (!std::getline(lines, line) || !line.starts_with("HTTP/1.") || line.size() < 12)
        return std::nullopt;
    HttpReply reply;
    reply.status = std::atoi(line.c_str() + 9);
    while (std::getline(lines, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) return std::nullopt;
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        size_t begin = line.find_first_not_of(" \t", colon + 1);
        size_t end = line.find_last_not_of(" \t\r");
        reply.headers[name] =
            begin == std::string::npos || end < begin ? "" : line.substr(begin, end - begin + 1);
    }
    return reply;
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

void RawHttpConnection::Close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool RawHttpConnection::Send(const std::string& bytes) {
    for (size_t done = 0; fd >= 0 && done < bytes.size();) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return fd >= 0;
}

int RawHttpConnection::Receive(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (fd < 0) return 0;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        int ready = ::poll(&p, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (ready == 0) return -1;
        char chunk[4096];
        ssize_t n = ready < 0 ? -1 : ::recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return 0;
        pending.append(chunk, static_cast<size_t>(n));
        return static_cast<int>(n);
    }
}

std::optional<HttpReply> RawHttpConnection::ReadReply(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t headEnd;
    while ((headEnd = pending.find("\r\n\r\n")) == std::string::npos) {
        if (Receive(deadline) <= 0) return std::nullopt;
    }
    auto reply = ParseHead(pending.substr(0, headEnd + 2));
    if (!reply) return std::nullopt;
    // The service declares every body's length, even an empty one.
    auto length = reply->headers.find("content-length");
    size_t end =
        headEnd + 4 +
        (length == reply->headers.end() ? 0 : std::strtoul(length->second.c_str(), nullptr, 10));
    while (pending.size() < end) {
        if (Receive(deadline) <= 0) return std::nullopt;
    }
    pending.erase(0, end);
    return reply;
}

bool RawHttpConnection::WaitClosed(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int n = Receive(deadline);
        pending.clear();
        if (n <= 0) return n == 0;
    }
}

std::string PostRequest(const std::string& target, const std::string& body,
                        const std::string& contentType) {
    std::string request = "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (!contentType.empty()) request += "Content-Type: " + contentType + "\r\n";
    return request + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::optional<HttpReply> PostOnce(uint16_t port, const std::string& target, const std::string& body,
                                  const std::string& contentType) {
    RawHttpConnection connection(port);
    if (!connection.Send(PostRequest(target, body, contentType))) return std::nullopt;
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
