// Test doubles at the platform seam: a file factory that injects faults, and in-memory HTTP
// requests and responses.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdint>
#include <filesystem>
#include <future>
#include <optional>
#include <string>

#include "platform/base/exceptions.h"
#include "platform/fs/files.h"
#include "platform/http/http.h"

namespace TessardTest {

using Pelinor::Ref;
using Pelinor::System::File;
using Pelinor::System::OutputStream;

// Installs itself as the instance of Base (a platform seam) for its lifetime.
template <typename Base>
struct Installed : Base {
    Installed() : previous(std::exchange(Base::sInstance, this)) {}
    ~Installed() override { Base::sInstance = previous; }
    Base* previous;
};

// Real files, with faults switched on by the test.
struct FaultyFactory : Installed<Pelinor::System::SystemFactory> {
    std::atomic<bool> failRename{false};  // Rename gives no file
    std::atomic<bool> vanish{false};      // the file is gone when Rename comes
    std::atomic<bool> failList{false};    // ListFiles throws IOException
    std::atomic<bool> failClose{false};   // the stream's Close throws IOException

    Ref<File> CreateFile(const std::string& path) override {
        return Pelinor::MakeRef<FaultyFile>(Real().CreateFile(path), *this);
    }
    Ref<OutputStream> OpenForWrite(const std::string& path, int flags) override {
        return Pelinor::MakeRef<FaultyStream>(Real().OpenForWrite(path, flags), *this);
    }
    Ref<Pelinor::System::ServerSocket> CreateServerSocket() override {
        return Real().CreateServerSocket();
    }

    struct FaultyStream : OutputStream {
        FaultyStream(Ref<OutputStream> real, FaultyFactory& factory)
            : real(std::move(real)), factory(factory) {}
        void Write(const void* data, size_t size) override { real->Write(data, size); }
        void Close() override {
            if (factory.failClose) throw Pelinor::IOException("injected close failure");
            real->Close();
        }
        Ref<OutputStream> real;
        FaultyFactory& factory;
    };
    struct FaultyFile : File {
        FaultyFile(Ref<File> real, FaultyFactory& factory)
            : real(std::move(real)), factory(factory) {}
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
        Ref<File> real;
        FaultyFactory& factory;
    };
};

// What the client receives: the first code sent or, once released unsent, the code it holds
// (500 when none), as the real service does.
struct FakeResponse : Pelinor::Http::Response {
    explicit FakeResponse(bool clientGone = false) : clientGone(clientGone) {}
    ~FakeResponse() override {
        if (!sent) delivered.set_value(held.value_or(500));
    }

    void SetResponseCode(const Pelinor::Http::ResponseCode& code) override { held = code.code; }
    void SetHeader(const std::string&, const std::string&) override {}
    void Send() override {
        if (clientGone) throw Pelinor::IOException("Broken pipe");
        if (sent) ADD_FAILURE() << "answered twice";
        sent = true;
        delivered.set_value(held.value_or(500));
    }

    std::promise<int> delivered;

    const bool clientGone;
    std::optional<int> held;
    bool sent = false;
};

struct FakeRequest : Pelinor::Http::Request {
    FakeRequest(const std::string& url, const std::string& body,
                const std::string& type = "application/json")
        : declaredLength(body.size()), url(url), body(body), contentType(type) {}

    std::optional<int64_t> declaredLength;  // none, as in a chunked request
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
    std::optional<uint32_t> GetClientUid() const override { return std::nullopt; }
    int64_t ReadAvailable(char* buffer, size_t size) override {
        if (piece != 0) return 0;  // trickled: each piece must be waited for
        size_t offset = bytesRead;
        if (offset >= failAfter) throw Pelinor::IOException("client went away");
        if (offset >= body.size()) return -1;
        size_t n = std::min(size, body.size() - offset);
        body.copy(buffer, n, offset);
        bytesRead += n;
        return static_cast<int64_t>(n);
    }
    Pelinor::Task<int64_t> Read(char* buffer, size_t size) override {
        if (piece == 0) co_return ReadAvailable(buffer, size);
        co_await boost::asio::post(co_await boost::asio::this_coro::executor,
                                   boost::asio::use_awaitable_t<Pelinor::Executor>{});
        size_t wanted = std::exchange(piece, 0);
        int64_t n = ReadAvailable(buffer, std::min(size, wanted));
        piece = wanted;
        co_return n;
    }
    bool BodyInMemory() const override { return piece == 0; }

    const std::string url, body, contentType;
};

}  // namespace TessardTest
