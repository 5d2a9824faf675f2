#include "platform/http/peer_identity.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Pelinor::Http {

namespace {

// Far more than one diagnostics record without extensions takes.
constexpr size_t kReplyBuffer = 4096;

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

// The address and port of one end, in the form of the kernel's socket id.
bool Fill(const sockaddr_storage& end, __be16& port, __be32 (&address)[4]) {
    if (end.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(end);
        port = v4.sin_port;
        std::memcpy(address, &v4.sin_addr, sizeof v4.sin_addr);
        return true;
    }
    if (end.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(end);
        port = v6.sin6_port;
        std::memcpy(address, &v6.sin6_addr, sizeof v6.sin6_addr);
        return true;
    }
    return false;
}

}  // namespace

PeerIdentity::PeerIdentity()
    : netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG)) {
    if (!netlink) problem = std::strerror(errno);
}

std::optional<uint32_t> PeerIdentity::UidOfPeer(int fd) {
    sockaddr_storage local{}, peer{};
    socklen_t localSize = sizeof local, peerSize = sizeof peer;
    if (!netlink || ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localSize) != 0 ||
        ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0 ||
        local.ss_family != peer.ss_family) {
        return std::nullopt;
    }
    // The client's socket: its own end is our peer, its far end is us.
    Request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = ++sequence;
    request.body.sdiag_family = static_cast<__u8>(peer.ss_family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0U;
    request.body.id.idiag_cookie[0] = request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (!Fill(peer, request.body.id.idiag_sport, request.body.id.idiag_src) ||
        !Fill(local, request.body.id.idiag_dport, request.body.id.idiag_dst)) {
        return std::nullopt;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(netlink.Get(), &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof kernel) != static_cast<ssize_t>(sizeof request)) {
        return std::nullopt;
    }
    // The kernel answers within the send; a reply to an earlier lookup that was given up on
    // is skipped by its sequence number.
    alignas(nlmsghdr) std::array<char, kReplyBuffer> reply;
    for (;;) {
        ssize_t size = ::recv(netlink.Get(), reply.data(), reply.size(), MSG_DONTWAIT);
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return std::nullopt;
        auto remaining = static_cast<unsigned>(size);
        for (auto* message = reinterpret_cast<nlmsghdr*>(reply.data());
             NLMSG_OK(message, remaining); message = NLMSG_NEXT(message, remaining)) {
            if (message->nlmsg_seq != sequence) continue;
            if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
                message->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                return std::nullopt;  // NLMSG_ERROR: no such socket
            }
            const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(message));
            // A socket its owner has closed reports root as its owner, and no inode.
            if (found->idiag_inode == 0) return std::nullopt;
            return found->idiag_uid;
        }
    }
}

}  // namespace Pelinor::Http
