// Test doubles at the platform seam: a file factory that injects faults, and
// in-memory HTTP requests and responses.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/fs/files.h"
#include "platform/http/http.h"

namespace TessardTest {

// Real files, with faults switched on by the test. Installs itself as the factory
// for its lifetime.
class FaultyFactory : public Pelinor::System::SystemFactory {
  public:
    FaultyFactory();
    ~FaultyFactory() override;

    std::atomic<bool> failOpen{false};    // OpenForWrite throws IOException
    std::atomic<bool> failRename{false};  // Rename gives no file
    std::atomic<bool> failList{false};    // ListFiles throws IOException
    std::atomic<bool> failClose{false};   // the stream's Close throws IOException

    Pelinor::Ref<Pelinor::System::File> CreateFile(const std::string& path) override;
    Pelinor::Ref<Pelinor::System::OutputStream> OpenForWrite(const std::string& path,
                                                             int flags) override;
    Pelinor::Ref<Pelinor::System::ServerSocket> CreateServerSocket() override;

  private:
    Pelinor::System::SystemFactory* previous;
};

// What became of a fake response, kept beyond the response's life.
struct ResponseOutcome {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<int> heldCode;       // last code set
    std::optional<int> deliveredCode;  // what the client would receive
    int sends = 0;
    bool released = false;

    // Waits until the response has been released; false on time-out.
    bool WaitReleased(int timeoutMs = 5000);
};

class FakeResponse : public Pelinor::Http::Response {
  public:
    explicit FakeResponse(std::shared_ptr<ResponseOutcome> outcome, bool clientGone = false)
        : outcome(std::move(outcome)), clientGone(clientGone) {}
    ~FakeResponse() override;

    void SetResponseCode(const Pelinor::Http::ResponseCode& code) override;
    void SetHeader(const std::string&, const std::string&) override {}
    void Send() override;  // throws IOException when the client is gone

  private:
    std::shared_ptr<ResponseOutcome> outcome;
    const bool clientGone;
};

class FakeRequest : public Pelinor::Http::Request {
  public:
    FakeRequest(std::string url, std::string body, std::string contentType = "application/json");

    // Declares no length (as a chunked request does).
    FakeRequest& WithoutLength();
    FakeRequest& WithDeclaredLength(int64_t length);
    // Reads throw IOException once this many bytes have been handed out.
    FakeRequest& FailAfter(size_t bytes);
    // Each read suspends first, as if waiting for the network, then hands out at most
    // `bytes` bytes.
    FakeRequest& InPiecesOf(size_t bytes);

    std::string GetMethod() const override { return "POST"; }
    void GetContentType(std::string& out) const override { out = contentType; }
    std::string GetUrl() const override { return url; }
    bool GetContentLength(int64_t& length) const override;
    Pelinor::Task<int64_t> Read(char* buffer, size_t size) override;

    std::atomic<size_t> bytesRead{0};

  private:
    const std::string url;
    const std::string body;
    const std::string contentType;
    std::optional<int64_t> declaredLength;
    std::optional<size_t> failAfter;
    std::optional<size_t> piece;
};

// Runs a job to its end on a loop of the test's own and rethrows what it threw.
void RunToEnd(const std::function<Pelinor::Task<void>()>& job);

}  // namespace TessardTest
