#include "tests/support/fakes.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <filesystem>

#include "platform/base/exceptions.h"

namespace TessardTest {

using Pelinor::MakeRef;
using Pelinor::Ref;
using Pelinor::System::File;
using Pelinor::System::OutputStream;

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
        if (factory.vanish) std::filesystem::remove(GetPath());
        return factory.failRename ? Ref<File>() : real->Rename(target);
    }
    bool CreateSymlink(const std::string& linkPath, int flags) const override {
        return real->CreateSymlink(linkPath, flags);
    }

  private:
    Ref<File> real;
    FaultyFactory& factory;
};

}  // namespace

Ref<File> FaultyFactory::CreateFile(const std::string& path) {
    return MakeRef<FaultyFile>(Real().CreateFile(path), *this);
}

Ref<OutputStream> FaultyFactory::OpenForWrite(const std::string& path, int flags) {
    return MakeRef<FaultyStream>(Real().OpenForWrite(path, flags), *this);
}

FakeResponse::~FakeResponse() {
    if (!sent) delivered.set_value(held.value_or(500));
}

void FakeResponse::Send() {
    if (clientGone) throw Pelinor::IOException("Broken pipe");
    if (sent) ADD_FAILURE() << "answered twice";
    sent = true;
    delivered.set_value(held.value_or(500));
}

int64_t FakeRequest::ReadAvailable(char* buffer, size_t size) {
    if (piece != 0) return 0;  // trickled: each piece must be waited for
    size_t offset = bytesRead;
    if (offset >= failAfter) throw Pelinor::IOException("client went away");
    if (offset >= body.size()) return -1;
    size_t n = std::min(size, body.size() - offset);
    body.copy(buffer, n, offset);
    bytesRead += n;
    return static_cast<int64_t>(n);
}

Pelinor::Task<int64_t> FakeRequest::Read(char* buffer, size_t size) {
    if (piece == 0) co_return ReadAvailable(buffer, size);
    co_await boost::asio::post(co_await boost::asio::this_coro::executor,
                               boost::asio::use_awaitable_t<Pelinor::Executor>{});
    size_t wanted = piece;
    piece = 0;
    int64_t n = ReadAvailable(buffer, std::min(size, wanted));
    piece = wanted;
    co_return n;
}

}  // namespace TessardTest
