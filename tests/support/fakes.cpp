#include "tests/support/fakes.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "platform/base/exceptions.h"

namespace TessardTest {

using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::System::File;
using Pelinor::System::OutputStream;
using Pelinor::System::SystemFactory;

namespace {

class FaultyStream : public OutputStream {
  public:
    FaultyStream(Ref<OutputStream> real, FaultyFactory& factory)
        : real(std::move(real)), factory(factory) {}
    void Write(const void* data, size_t size) override { real->Write(data, size); }
    void Close() override {
        if (factory.failClose) throw Pelinor::IOException("injected close failure");
        real->Close();
    }

  private:
    Ref<OutputStream> real;
    FaultyFactory& factory;
};

class FaultyFile : public File {
  public:
    FaultyFile(Ref<File> real, FaultyFactory& factory) : real(std::move(real)), factory(factory) {}
    const std::string& GetPath() const override { return real->GetPath(); }
    bool Exists() const override { return real->Exists(); }
    bool IsDirectory() const override { return real->IsDirectory(); }
    bool IsSymlink() const override { return real->IsSymlink(); }
    std::vector<Ref<File>> ListFiles() const override {
        if (factory.failList) throw Pelinor::IOException("injected listing failure");
        return real->ListFiles();
    }
    Ref<File> Rename(const std::string& target) override {
        if (factory.failRename) return {};
        return real->Rename(target);
    }
    bool CreateSymlink(const std::string& linkPath, int flags) const override {
        return real->CreateSymlink(linkPath, flags);
    }

  private:
    Ref<File> real;
    FaultyFactory& factory;
};

}  // namespace

FaultyFactory::FaultyFactory() : previous(SystemFactory::sInstance) {
    SystemFactory::sInstance = this;
}

FaultyFactory::~FaultyFactory() {
    SystemFactory::sInstance = previous;
}

Ref<File> FaultyFactory::CreateFile(const std::string& path) {
    return MakeRef<FaultyFile>(SystemFactory::Real().CreateFile(path), *this);
}

Ref<OutputStream> FaultyFactory::OpenForWrite(const std::string& path, int flags) {
    if (failOpen) throw Pelinor::IOException("injected open failure");
    return MakeRef<FaultyStream>(SystemFactory::Real().OpenForWrite(path, flags), *this);
}

Ref<Pelinor::System::ServerSocket> FaultyFactory::CreateServerSocket() {
    return SystemFactory::Real().CreateServerSocket();
}

bool ResponseOutcome::WaitReleased(int timeoutMs) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return released; });
}

FakeResponse::~FakeResponse() {
    std::lock_guard lock(outcome->mutex);
    // The real service sends a released, unsent response with its code, or 500.
    if (!outcome->deliveredCode) outcome->deliveredCode = outcome->heldCode.value_or(500);
    outcome->released = true;
    outcome->changed.notify_all();
}

void FakeResponse::SetResponseCode(const Pelinor::Http::ResponseCode& code) {
    std::lock_guard lock(outcome->mutex);
    outcome->heldCode = code.code;
}

void FakeResponse::Send() {
    std::lock_guard lock(outcome->mutex);
    ++outcome->sends;
    if (clientGone) throw Pelinor::IOException("Broken pipe");
    if (!outcome->deliveredCode) outcome->deliveredCode = outcome->heldCode.value_or(500);
}

FakeRequest::FakeRequest(std::string url, std::string body, std::string contentType)
    : url(std::move(url)),
      body(std::move(body)),
      contentType(std::move(contentType)),
      declaredLength(static_cast<int64_t>(this->body.size())) {}

FakeRequest& FakeRequest::WithoutLength() {
    declaredLength.reset();
    return *this;
}

FakeRequest& FakeRequest::WithDeclaredLength(int64_t length) {
    declaredLength = length;
    return *this;
}

FakeRequest& FakeRequest::FailAfter(size_t bytes) {
    failAfter = bytes;
    return *this;
}

bool FakeRequest::GetContentLength(int64_t& length) const {
    if (!declaredLength) return false;
    length = *declaredLength;
    return true;
}

FakeRequest& FakeRequest::InPiecesOf(size_t bytes) {
    piece = bytes;
    return *this;
}

Pelinor::Task<int64_t> FakeRequest::Read(char* buffer, size_t size) {
    if (piece) {
        co_await boost::asio::post(co_await boost::asio::this_coro::executor,
                                   boost::asio::use_awaitable);
        size = std::min(size, *piece);
    }
    size_t offset = bytesRead;
    if (failAfter && offset >= *failAfter) throw Pelinor::IOException("client went away");
    if (offset >= body.size()) co_return -1;
    size_t n = std::min(size, body.size() - offset);
    body.copy(buffer, n, offset);
    bytesRead += n;
    co_return static_cast<int64_t>(n);
}

void RunToEnd(const std::function<Pelinor::Task<void>()>& job) {
    boost::asio::io_context loop;
    std::exception_ptr failure;
    boost::asio::co_spawn(loop, job, [&](std::exception_ptr e) { failure = e; });
    loop.run();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace TessardTest
