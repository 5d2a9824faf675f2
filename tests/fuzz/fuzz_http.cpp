// Whole requests, as the bytes a client sends, through a connection and the report handler:
// the socket is in memory and the loop is the fuzzer's own. The first byte picks the client's
// user (only root may write) and how many bytes each read brings; the rest is what the client
// sends before it shuts down its end. Every answer must be well-formed HTTP with a status the
// daemon gives.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "http/tessard_handler.h"
#include "platform/http/connection_impl.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

namespace net = boost::asio;
using Pelinor::Executor;

// A client that has sent `input` in pieces of at most `piece` bytes, each after a pause in
// which nothing is there (so waiting is taken too), and then shut down its end.
struct MemorySocket : net::socket_base {
    using executor_type = Executor;
    MemorySocket(Executor executor, std::string_view input, size_t piece, std::string& output)
        : executor(executor), input(input), piece(piece), output(&output) {}

    Executor get_executor() const { return executor; }
    void non_blocking(bool, boost::system::error_code&) {}
    size_t read_some(net::mutable_buffer buffer, boost::system::error_code& ec) {
        if ((paused = !paused) || input.empty()) {
            ec = paused ? make_error_code(net::error::would_block)
                        : make_error_code(net::error::eof);
            return 0;
        }
        size_t n = std::min({buffer.size(), piece, input.size()});
        std::memcpy(buffer.data(), input.data(), n);
        input.remove_prefix(n);
        return n;
    }
    size_t write_some(net::const_buffer buffer, boost::system::error_code&) {
        output->append(static_cast<const char*>(buffer.data()), buffer.size());
        return buffer.size();
    }
    template <typename Token>
    auto async_wait(wait_type, Token&& token) {
        return net::async_initiate<Token, void(boost::system::error_code)>(
            [this](auto handler) {
                net::post(executor, [handler = std::move(handler)]() mutable {
                    std::move(handler)(boost::system::error_code());
                });
            },
            token);
    }
    void cancel(boost::system::error_code&) {}
    void shutdown(shutdown_type, boost::system::error_code&) {}
    void close(boost::system::error_code&) {}

    Executor executor;
    std::string_view input;
    size_t piece;
    std::string* output;
    bool paused = false;
};

// Every answer well-formed, with a status the daemon gives.
bool WellFormed(std::string_view output) {
    static const std::set<unsigned> kStatuses = {100, 200, 400, 403, 405, 411, 413, 431, 500};
    while (!output.empty()) {
        boost::beast::http::response_parser<boost::beast::http::empty_body> parser;
        boost::beast::error_code ec;
        size_t used = parser.put(net::buffer(output.data(), output.size()), ec);
        if (ec || !parser.is_done() || !kStatuses.contains(parser.get().result_int())) return false;
        output.remove_prefix(used);
    }
    return true;
}

}  // namespace

namespace Pelinor::Http {
template class Connection<MemorySocket>;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static auto& environment = TessardFuzz::Setup();
    static const std::string reports = environment.root / "reports/";
    static auto writers = [] {
        auto policy = std::make_shared<Tessard::WriterPolicy>();
        policy->Load(*Pelinor::Service::Config::Parse("<config><access><writers>0</writers>"
                                                      "</access></config>"),
                     Tessard::kNobodyId, Pelinor::Service::Logger::sDefaultLogger);
        return policy;
    }();
    static auto handler = Pelinor::MakeRef<Tessard::TessardHandler>(reports, nullptr, writers);
    static auto core = std::make_shared<Pelinor::Http::Core>(
        Pelinor::Service::Logger::sDefaultLogger,
        Pelinor::Http::GetDefaultResponseHeadersDefinitions(), Pelinor::Http::HttpLimits{});
    if (size == 0) return 0;
    std::filesystem::remove_all(reports);
    std::filesystem::create_directories(reports);

    const std::optional<uint32_t> users[] = {0, Tessard::kNobodyId, std::nullopt};
    size_t piece = data[0] / 3 == 0 ? SIZE_MAX : data[0] / 3;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

    net::io_context io;
    Pelinor::System::ScopedLoop loop(io);
    auto home = std::make_shared<Pelinor::Http::LoopConnections>(io.get_executor());
    std::string output;
    bool done = false;
    net::co_spawn(io,
                  Pelinor::Http::Connection<MemorySocket>::Run(
                      std::make_shared<Pelinor::Http::Connection<MemorySocket>>(
                          core, *home, MemorySocket(io.get_executor(), input, piece, output),
                          handler, users[data[0] % 3])),
                  [&](std::exception_ptr) { done = true; });
    io.run();  // the jobs' ends too, so that every name's queue is free for the next input
    if (!done || !WellFormed(output)) __builtin_trap();
    return 0;
}
