// A deliberately raw HTTP/1.1 client for tests: sends exactly the bytes it is given,
// so malformed, stalled and oversized requests can be sent as well as good ones.
#pragma once

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/asio.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace TessardTest {

struct HttpReply {
    int status = 0;
    std::map<std::string, std::string> headers;  // names lower-cased
};

class RawHttpConnection {
  public:
    // Connects to 127.0.0.1:port; throws std::runtime_error on failure.
    explicit RawHttpConnection(uint16_t port) {
        socket.connect({boost::asio::ip::address_v4::loopback(), port});
        // Requests are sent in deliberate pieces; each should leave at once.
        socket.set_option(boost::asio::ip::tcp::no_delay(true));
    }

    // Sends every byte; false if the peer has closed or reset the connection.
    bool Send(const std::string& bytes) {
        boost::system::error_code error;
        boost::asio::write(socket, boost::asio::buffer(bytes), error);
        return !error;
    }
    // Reads one response and its body. Empty when the connection closes or nothing
    // complete arrives within `timeout`.
    std::optional<HttpReply> ReadReply(
        std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        namespace http = boost::beast::http;
        http::response_parser<http::string_body> parser;
        http::async_read(socket, buffer, parser, [&](auto error, size_t) { result = error; });
        if (!EndsWithin(timeout) || result) return std::nullopt;
        HttpReply reply{static_cast<int>(parser.get().result_int()), {}};
        for (const auto& field : parser.get())
            reply.headers[boost::algorithm::to_lower_copy(std::string(field.name_string()))] =
                field.value();
        return reply;
    }
    // True when the peer closes (EOF or reset) within `timeout`; data read meanwhile is dropped.
    bool WaitClosed(std::chrono::milliseconds timeout) {
        std::string ignored;
        boost::asio::async_read(socket, boost::asio::dynamic_buffer(ignored),
                                [&](auto error, size_t) { result = error; });
        // Reading everything ends only with the connection.
        return EndsWithin(timeout);
    }
    void Close() { socket.close(); }

  private:
    // Runs the operation started on `socket` until it ends or the time is up.
    bool EndsWithin(std::chrono::milliseconds timeout) {
        io.restart();
        io.run_for(timeout);
        if (io.stopped()) return true;
        socket.cancel();
        io.run();
        return false;
    }

    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket{io};
    boost::beast::multi_buffer buffer;  // bytes read past the last reply
    boost::system::error_code result;
};

// A POST of a JSON body, declaring `length` bytes (by default the body's).
inline std::string PostRequest(const std::string& target, const std::string& body = "",
                               size_t length = std::string::npos) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(length == std::string::npos ? body.size() : length) + "\r\n\r\n" + body;
}
// Sends raw bytes on a fresh connection and reads one reply; status 0 when none arrives within
// 5 s, which no stalled client of the daemon should cause.
inline HttpReply Exchange(uint16_t port, const std::string& bytes) {
    RawHttpConnection connection(port);
    connection.Send(bytes);
    return connection.ReadReply(std::chrono::seconds(5)).value_or(HttpReply{});
}
inline int PostStatus(uint16_t port, const std::string& target, const std::string& body) {
    return Exchange(port, PostRequest(target, body)).status;
}
// A port that was free a moment ago on 127.0.0.1.
inline uint16_t FreePort() {
    boost::asio::io_context io;
    return boost::asio::ip::tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0})
        .local_endpoint()
        .port();
}

}  // namespace TessardTest
