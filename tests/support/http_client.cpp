#include "tests/support/http_client.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/asio.hpp>
#include <boost/beast/http.hpp>

namespace TessardTest {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;

struct RawHttpConnection::Stream {
    asio::io_context io;
    tcp::socket socket{io};
    boost::beast::multi_buffer buffer;  // bytes read past the last reply
    boost::system::error_code result;

    // Runs the operation started on `socket` until it ends or the time is up.
    bool EndsWithin(std::chrono::milliseconds timeout) {
        io.restart();
        io.run_for(timeout);
        if (io.stopped()) return true;
        socket.cancel();
        io.run();
        return false;
    }
    void Done(boost::system::error_code error, size_t) { result = error; }
};

RawHttpConnection::RawHttpConnection(uint16_t port) : stream(std::make_unique<Stream>()) {
    stream->socket.connect({asio::ip::address_v4::loopback(), port});
    // Requests are sent in deliberate pieces; each should leave at once.
    stream->socket.set_option(tcp::no_delay(true));
}

RawHttpConnection::~RawHttpConnection() = default;

void RawHttpConnection::Close() {
    stream->socket.close();
}

bool RawHttpConnection::Send(const std::string& bytes) {
    boost::system::error_code error;
    asio::write(stream->socket, asio::buffer(bytes), error);
    return !error;
}

std::optional<HttpReply> RawHttpConnection::ReadReply(std::chrono::milliseconds timeout) {
    http::response_parser<http::string_body> parser;
    http::async_read(stream->socket, stream->buffer, parser,
                     std::bind_front(&Stream::Done, stream.get()));
    if (!stream->EndsWithin(timeout) || stream->result) return std::nullopt;
    HttpReply reply{static_cast<int>(parser.get().result_int()), {}};
    for (const auto& field : parser.get())
        reply.headers[boost::algorithm::to_lower_copy(std::string(field.name_string()))] =
            field.value();
    return reply;
}

bool RawHttpConnection::WaitClosed(std::chrono::milliseconds timeout) {
    std::string ignored;
    asio::async_read(stream->socket, asio::dynamic_buffer(ignored),
                     std::bind_front(&Stream::Done, stream.get()));
    // Reading everything ends only with the connection.
    return stream->EndsWithin(timeout);
}

std::string PostRequest(const std::string& target, const std::string& body) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

HttpReply Exchange(uint16_t port, const std::string& bytes) {
    RawHttpConnection connection(port);
    connection.Send(bytes);
    return connection.ReadReply(std::chrono::seconds(5)).value_or(HttpReply{});
}

int PostStatus(uint16_t port, const std::string& target, const std::string& body) {
    return Exchange(port, PostRequest(target, body)).status;
}

uint16_t FreePort() {
    asio::io_context io;
    return tcp::acceptor(io, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

}  // namespace TessardTest
