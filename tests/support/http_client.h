// A deliberately raw HTTP/1.1 client for tests: sends exactly the bytes it is given,
// so malformed, stalled and oversized requests can be sent as well as good ones.
#pragma once

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
    explicit RawHttpConnection(uint16_t port);
    ~RawHttpConnection() { Close(); }
    RawHttpConnection(const RawHttpConnection&) = delete;
    RawHttpConnection& operator=(const RawHttpConnection&) = delete;

    // Sends every byte; false if the peer has closed or reset the connection.
    bool Send(const std::string& bytes);
    // Reads one response, skipping its Content-Length body. Empty when the connection
    // closes or nothing complete arrives within `timeout`.
    std::optional<HttpReply> ReadReply(
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // True when the peer closes (EOF or reset) within `timeout`; data read meanwhile is dropped.
    bool WaitClosed(std::chrono::milliseconds timeout);
    void Close();

  private:
    // Appends what arrives by `deadline`: the byte count, 0 on close, -1 on time-out.
    int Receive(std::chrono::steady_clock::time_point deadline);

    int fd = -1;
    std::string pending;  // bytes read past the last reply
};

// A POST with Content-Length and the given content type.
std::string PostRequest(const std::string& target, const std::string& body,
                        const std::string& contentType = "application/json");

// One request on a fresh connection; the reply or an empty optional.
std::optional<HttpReply> PostOnce(uint16_t port, const std::string& target, const std::string& body,
                                  const std::string& contentType = "application/json");

// A port that was free a moment ago on 127.0.0.1.
uint16_t FreePort();

}  // namespace TessardTest
