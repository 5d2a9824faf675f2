// Test doubles at the platform seam: a file factory that injects faults, and in-memory HTTP
// requests and responses.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <optional>
#include <string>

#include "platform/fs/files.h"
#include "platform/http/http.h"

namespace TessardTest {

// Real files, with faults switched on by the test. Installs itself as the factory for its
// lifetime.
class FaultyFactory : public Pelinor::System::SystemFactory {
  public:
    FaultyFactory() : previous(sInstance) { sInstance = this; }
    ~FaultyFactory() override { sInstance = previous; }

    std::atomic<bool> failRename{false};  // Rename gives no file
    std::atomic<bool> vanish{false};      // the file is gone when Rename comes
    std::atomic<bool> failList{false};    // ListFiles throws IOException
    std::atomic<bool> failClose{false};   // the stream's Close throws IOException

    Pelinor::Ref<Pelinor::System::File> CreateFile(const std::string& path) override;
    Pelinor::Ref<Pelinor::System::OutputStream> OpenForWrite(const std::string& path,
                                                             int flags) override;
    Pelinor::Ref<Pelinor::System::ServerSocket> CreateServerSocket() override {
        return Real().CreateServerSocket();
    }

  private:
    Pelinor::System::SystemFactory* previous;
};

// What the client receives: the first code sent or, once released unsent, the code it holds
// (500 when none), as the real service does.
class FakeResponse : public Pelinor::Http::Response {
  public:
    explicit FakeResponse(bool clientGone = false) : clientGone(clientGone) {}
    ~FakeResponse() override;

    void SetResponseCode(const Pelinor::Http::ResponseCode& code) override { held = code.code; }
    void SetHeader(const std::string&, const std::string&) override {}
    void Send() override;  // throws IOException when the client is gone

    std::promise<int> delivered;

  private:
    const bool clientGone;
    std::optional<int> held;
    bool sent = false;
};

class FakeRequest : public Pelinor::Http::Request {
  public:
    FakeRequest(std::string url, std::string body, std::string contentType = "application/json")
        : declaredLength(static_cast<int64_t>(body.size())),
          url(std::move(url)),
          body(std::move(body)),
          contentType(std::move(contentType)) {}

    std::optional<int64_t> declaredLength;  // none, as in a chunked request
    std::optional<uint32_t> clientUid;      // none: the kernel could not say
    size_t piece = 0;                       // when set, each read suspends, then gives <= piece
    size_t failAfter = SIZE_MAX;            // reads throw IOException past this many bytes
    std::atomic<size_t> bytesRead{0};

    std::string GetMethod() const override { return "POST"; }
    void GetContentType(std::string& out) const override { out = contentType; }
    std::string GetUrl() const override { return url; }
    bool GetContentLength(int64_t& length) const override {
        length = declaredLength.value_or(0);
        return declaredLength.has_value();
    }
    std::optional<uint32_t> GetClientUid() const override { return clientUid; }
    int64_t ReadAvailable(char* buffer, size_t size) override;
    Pelinor::Task<int64_t> Read(char* buffer, size_t size) override;
    bool BodyInMemory() const override { return piece == 0; }

  private:
    const std::string url, body, contentType;
};

}  // namespace TessardTest
