#include "platform/http/server_socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "platform/base/exceptions.h"
#include "platform/base/format.h"
#include "platform/base/logging.h"
#include "platform/base/unique_fd.h"

namespace Pelinor::System {

namespace {

struct AddrInfoDeleter {
    void operator()(addrinfo* info) const noexcept { ::freeaddrinfo(info); }
};

// "127.0.0.1:80" or "[::1]:80", as people write addresses in messages.
std::string Describe(const sockaddr* address, uint16_t port) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (address->sa_family == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                    sizeof text);
        return Format("[%1]:%2", text, port);
    }
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                sizeof text);
    return Format("%1:%2", text, port);
}

void SetPort(sockaddr* address, uint16_t port) {
    if (address->sa_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(address)->sin6_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in*>(address)->sin_port = htons(port);
    }
}

class PosixServerSocket final : public ServerSocket {
  public:
    void Listen(const std::string& host, int32_t port) override {
        if (port < 0 || port > std::numeric_limits<uint16_t>::max()) {
            throw IOException(Format("Cannot listen on %1:%2: invalid port", host, port));
        }
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_protocol = IPPROTO_TCP;
        addrinfo* found = nullptr;
        int status = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
        if (status != 0) {
            throw IOException(
                Format("Cannot resolve %1: %2", host,
                       status == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(status)));
        }
        std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);

        // Bound here first, so a failure part-way leaves nothing half-listening.
        std::vector<UniqueFd> bound;
        std::vector<std::string> seen;
        auto nextPort = static_cast<uint16_t>(port);
        for (addrinfo* info = list.get(); info != nullptr; info = info->ai_next) {
            if (info->ai_family != AF_INET && info->ai_family != AF_INET6) continue;
            sockaddr_storage address{};
            std::memcpy(&address, info->ai_addr, info->ai_addrlen);
            auto* raw = reinterpret_cast<sockaddr*>(&address);
            SetPort(raw, nextPort);
            std::string name = Describe(raw, nextPort);
            // /etc/hosts may list one address twice; a second bind would fail.
            if (std::find(seen.begin(), seen.end(), name) != seen.end()) continue;
            seen.push_back(name);

            int error = 0;
            UniqueFd fd = Open(raw, info->ai_addrlen, error);
            if (fd.Get() < 0) {
                if (info->ai_family == AF_INET6 &&
                    (error == EAFNOSUPPORT || error == EADDRNOTAVAIL)) {
                    Service::Log(Service::Logger::sDefaultLogger, Service::LogLevel::Warning,
                                 "Not listening on %1: %2", name, std::strerror(error));
                    continue;
                }
                throw IOException(Format("Cannot listen on %1: %2", name, std::strerror(error)));
            }
            if (nextPort == 0) nextPort = LocalPort(fd.Get());
            bound.push_back(std::move(fd));
        }
        if (bound.empty()) {
            throw IOException(Format("Cannot listen on %1:%2: no usable address", host, port));
        }
        for (auto& fd : bound) descriptors.push_back(std::move(fd));
        boundPort = nextPort;
    }

    uint16_t GetPort() const override { return boundPort; }

    std::vector<UniqueFd> TakeDescriptors() override { return std::exchange(descriptors, {}); }

  private:
    static UniqueFd Open(const sockaddr* address, socklen_t size, int& error) {
        UniqueFd fd(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
        int one = 1;
        bool ok = fd.Get() >= 0 &&
                  ::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
                  (address->sa_family != AF_INET6 ||
                   ::setsockopt(fd.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one) == 0) &&
                  ::bind(fd.Get(), address, size) == 0 && ::listen(fd.Get(), SOMAXCONN) == 0;
        if (ok) return fd;
        error = errno;
        return UniqueFd(-1);
    }

    static uint16_t LocalPort(int fd) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw IOException(Format("Cannot read the bound port: %1", std::strerror(errno)));
        }
        return address.ss_family == AF_INET6
                   ? ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port)
                   : ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    }

    std::vector<UniqueFd> descriptors;
    uint16_t boundPort = 0;
};

}  // namespace

Ref<ServerSocket> MakePosixServerSocket() {
    return MakeRef<PosixServerSocket>();
}

}  // namespace Pelinor::System
