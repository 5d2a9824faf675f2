// A deliberately raw HTTP/1.1 client for tests: sends exactly the bytes it is given,
// so malformed, stalled and oversized requests can be sent as well as good ones.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
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
    explicit RawHttpConnection(uint16_t port);
    ~RawHttpConnection();

    // Sends every byte; false if the peer has closed or reset the connection.
    bool Send(const std::string& bytes);
    // Reads one response and its body. Empty when the connection closes or nothing
    // complete arrives within `timeout`.
    std::optional<HttpReply> ReadReply(
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // True when the peer closes (EOF or reset) within `timeout`; data read meanwhile is dropped.
    bool WaitClosed(std::chrono::milliseconds timeout);
    void Close();

  private:
    struct Stream;
    std::unique_ptr<Stream> stream;
};

// A POST of a JSON body.
std::string PostRequest(const std::string& target, const std::string& body);
// Sends raw bytes on a fresh connection and reads one reply; status 0 when none arrives within
// 5 s, which no stalled client of the daemon should cause.
HttpReply Exchange(uint16_t port, const std::string& bytes);
int PostStatus(uint16_t port, const std::string& target, const std::string& body);
// A port that was free a moment ago on 127.0.0.1.
uint16_t FreePort();

}  // namespace TessardTest
