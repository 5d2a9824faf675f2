// Who is at the other end of a loopback TCP connection, as the kernel knows it. Internal to
// platform/.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/unique_fd.h"

namespace Pelinor::Http {

// Asks the kernel's socket diagnostics (NETLINK_SOCK_DIAG, inet_diag) for the owner of the
// client's own socket, found by the connection's address and port pair. Holds one netlink
// socket; one lookup at a time.
class PeerIdentity {
  public:
    PeerIdentity();
    // Whether lookups can be made at all; Problem() says why not.
    bool Usable() const { return static_cast<bool>(netlink); }
    const std::string& Problem() const { return problem; }

    // The user id owning the client's socket of the accepted connection `fd`. None when the
    // kernel cannot say: the client closed its socket already (a closed socket no longer has
    // an owner), or the connection is not TCP over IPv4 or IPv6.
    std::optional<uint32_t> UidOfPeer(int fd);

  private:
    System::UniqueFd netlink;
    std::string problem;
    uint32_t sequence = 0;
};

}  // namespace Pelinor::Http
