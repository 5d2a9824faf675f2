// What learning a client's user costs the daemon per connection: the kernel's socket
// diagnostics asked for the client end of an accepted loopback connection, timed alone.
// Prints the mean and the median in microseconds.
#include <algorithm>
#include <boost/asio.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/http/peer_identity.h"

int main(int argc, char** argv) {
    int connections = argc > 1 ? std::atoi(argv[1]) : 20000;
    namespace net = boost::asio;
    net::io_context io;
    net::ip::tcp::acceptor acceptor(io, {net::ip::address_v4::loopback(), 0});
    Pelinor::Http::PeerIdentity identity;
    if (!identity.Usable()) {
        std::fprintf(stderr, "no socket diagnostics: %s\n", identity.Problem().c_str());
        return 1;
    }
    std::vector<double> micros;
    for (int i = 0; i < connections; ++i) {
        net::ip::tcp::socket client(io);
        client.connect(acceptor.local_endpoint());
        net::ip::tcp::socket server = acceptor.accept();
        auto start = std::chrono::steady_clock::now();
        auto uid = identity.UidOfPeer(server.native_handle());
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
        if (!uid) return 1;
    }
    double sum = 0;
    for (double m : micros) sum += m;
    std::nth_element(micros.begin(), micros.begin() + connections / 2, micros.end());
    std::printf("%.2f %.2f\n", sum / connections, micros[connections / 2]);
    return 0;
}
