// The kernel's word on who owns the client end of a loopback connection, over IPv4 and IPv6.
#include "platform/http/peer_identity.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio.hpp>

namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

TEST(PeerIdentity, NamesTheClientsOwnerWhileItsSocketIsOpen) {
    Pelinor::Http::PeerIdentity identity;
    ASSERT_TRUE(identity.Usable()) << identity.Problem();
    net::io_context io;
    for (const char* address : {"127.0.0.1", "::1"}) {
        tcp::acceptor acceptor(io);
        boost::system::error_code unavailable;
        acceptor.open(net::ip::make_address(address).is_v6() ? tcp::v6() : tcp::v4());
        acceptor.bind({net::ip::make_address(address), 0}, unavailable);
        if (unavailable) continue;  // a host without IPv6
        acceptor.listen();
        tcp::socket client(io);
        client.connect(acceptor.local_endpoint());
        tcp::socket server = acceptor.accept();
        EXPECT_EQ(identity.UidOfPeer(server.native_handle()), ::geteuid()) << address;
        // A closed socket reports root as its owner: whoever closed it is unknown.
        client.close();
        EXPECT_EQ(identity.UidOfPeer(server.native_handle()), std::nullopt) << address;
        EXPECT_EQ(identity.UidOfPeer(acceptor.native_handle()), std::nullopt) << "not connected";
    }
}

}  // namespace
