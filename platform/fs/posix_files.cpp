#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "platform/base/accounts.h"
#include "platform/base/exceptions.h"
#include "platform/base/unique_fd.h"
#include "platform/fs/files.h"
#include "platform/http/http.h"
#include "platform/http/server_socket.h"

namespace Pelinor::System {

namespace {

// Report bodies arrive in small pieces; whole buffers keep the write calls few.
constexpr size_t kStreamBufferSize = 64 * 1024;
constexpr mode_t kFileMode = 0644;

std::string_view DirectoryOf(std::string_view path) {
    auto slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash + 1);
}

// The hidden name beside `path` that a new version is made under before it replaces it.
std::string HiddenSibling(std::string_view path, std::string_view suffix) {
    std::string_view directory = DirectoryOf(path);
    std::string hidden;
    hidden.reserve(path.size() + 1 + suffix.size());
    hidden.append(directory).append(".").append(path.substr(directory.size())).append(suffix);
    return hidden;
}

// A thread's spare stream buffer. The jobs of an event loop mostly run one after another,
// so one buffer serves them in turn instead of one allocation (and release to the system)
// per report.
thread_local std::unique_ptr<char[]> tSpareBuffer;

class FdStream : public OutputStream {
  public:
    explicit FdStream(UniqueFd fd)
        : fd(std::move(fd)),
          buffer(tSpareBuffer ? std::move(tSpareBuffer)
                              : std::make_unique_for_overwrite<char[]>(kStreamBufferSize)) {}
    ~FdStream() override {
        if (!tSpareBuffer) tSpareBuffer = std::move(buffer);
    }

    void Write(const void* data, size_t size) override {
        if (!fd) throw IOException("Write to a closed file");
        auto bytes = static_cast<const char*>(data);
        while (size > 0) {
            if (used == 0 && size >= kStreamBufferSize) {
                WriteAll(bytes, size);
                return;
            }
            size_t take = std::min(size, kStreamBufferSize - used);
            std::memcpy(buffer.get() + used, bytes, take);
            used += take;
            bytes += take;
            size -= take;
            if (used == kStreamBufferSize) Flush();
        }
    }

    void Close() override {
        if (!fd) return;
        Flush();
        // Closed here rather than by the owner: a failed close is a failed write.
        int result = ::close(fd.Release());
        if (result != 0 && errno != EINTR) throw IOException(std::strerror(errno));
    }

  private:
    void Flush() {
        WriteAll(buffer.get(), used);
        used = 0;
    }

    void WriteAll(const char* data, size_t size) {
        while (size > 0) {
            ssize_t n = ::write(fd.Get(), data, size);
            if (n < 0) {
                if (errno == EINTR) continue;
                throw IOException(std::strerror(errno));
            }
            data += n;
            size -= static_cast<size_t>(n);
        }
    }

    UniqueFd fd;
    std::unique_ptr<char[]> buffer;
    size_t used = 0;
};

class PosixFile : public File {
  public:
    // `type` is the entry's type as a directory listing gave it (DT_UNKNOWN when not from
    // one): the restart scan then asks the kernel nothing more about regular files.
    explicit PosixFile(std::string path, unsigned char type = DT_UNKNOWN)
        : path(std::move(path)), type(type) {}

    const std::string& GetPath() const override { return path; }

    bool Exists() const override {
        struct stat st;
        return ::lstat(path.c_str(), &st) == 0;
    }

    bool IsDirectory() const override {
        if (type != DT_UNKNOWN && type != DT_LNK) return type == DT_DIR;
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }

    bool IsSymlink() const override {
        if (type != DT_UNKNOWN) return type == DT_LNK;
        struct stat st;
        return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    }

    std::vector<Ref<File>> ListFiles() const override {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
        if (!dir) throw SystemError("Cannot list", path, errno);
        std::string prefix = path.ends_with('/') ? path : path + "/";
        std::vector<Ref<File>> entries;
        errno = 0;
        while (const dirent* entry = ::readdir(dir.get())) {
            std::string_view name = entry->d_name;
            if (name != "." && name != "..") {
                entries.push_back(MakeRef<PosixFile>(prefix + entry->d_name, entry->d_type));
            }
            errno = 0;
        }
        if (errno != 0) throw SystemError("Cannot list", path, errno);
        return entries;
    }

    Ref<File> Rename(const std::string& target) override {
        if (::rename(path.c_str(), target.c_str()) != 0) return {};
        return MakeRef<PosixFile>(target);
    }

    bool CreateSymlink(const std::string& linkPath, int flags) const override {
        std::string target(DirectoryOf(path) == DirectoryOf(linkPath) ? GetName() : path);
        if ((flags & kReplaceLink) == 0) return ::symlink(target.c_str(), linkPath.c_str()) == 0;

        struct stat st;
        if (::lstat(linkPath.c_str(), &st) == 0 && !S_ISLNK(st.st_mode)) {
            errno = EEXIST;
            return false;
        }
        // A new link under a hidden name, renamed over the old one: never a moment without it.
        // A leftover at the hidden name (from a crash) is removed only when it is in the way.
        std::string temporary = HiddenSibling(linkPath, ".lnk");
        if (::symlink(target.c_str(), temporary.c_str()) != 0 &&
            (errno != EEXIST || ::unlink(temporary.c_str()) != 0 ||
             ::symlink(target.c_str(), temporary.c_str()) != 0)) {
            return false;
        }
        if (::rename(temporary.c_str(), linkPath.c_str()) != 0) {
            int error = errno;
            ::unlink(temporary.c_str());
            errno = error;
            return false;
        }
        return true;
    }

  private:
    const std::string path;
    const unsigned char type;
};

class PosixFactory : public SystemFactory {
  public:
    Ref<File> CreateFile(const std::string& path) override { return MakeRef<PosixFile>(path); }

    Ref<OutputStream> OpenForWrite(const std::string& path, int) override {
        // Always a new inode: whatever stands at the name (a leftover of a failed write, or
        // a link, hard link, FIFO or device planted there) is removed, never written through
        // or waited on. Removed only when it is in the way, so the common case is one call.
        constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        UniqueFd fd(::open(path.c_str(), kFlags, kFileMode));
        if (!fd && errno == EEXIST && ::unlink(path.c_str()) == 0) {
            fd = UniqueFd(::open(path.c_str(), kFlags, kFileMode));
        }
        if (!fd) throw IOException(std::strerror(errno));
        return MakeRef<FdStream>(std::move(fd));
    }

    Ref<ServerSocket> CreateServerSocket() override { return MakePosixServerSocket(); }
};

}  // namespace

std::string_view File::GetName() const {
    std::string_view path = GetPath();
    return path.substr(path.rfind('/') + 1);  // npos + 1 is 0: the whole path
}

std::string TamperProblem(const std::string& path, const std::string& top) {
    std::string_view limit = top;
    while (limit.size() > 1 && limit.back() == '/') limit.remove_suffix(1);
    for (std::string current = path;;) {
        struct stat st {};
        if (::stat(current.c_str(), &st) != 0) return "";  // the launch tells what is missing
        if (st.st_uid != 0 && st.st_uid != OwnUid()) {
            return current + " belongs to uid " + std::to_string(st.st_uid) + ", not to root";
        }
        if ((st.st_mode & S_IWOTH) != 0) return current + " is writable by everyone";
        if ((st.st_mode & S_IWGRP) != 0) return current + " is writable by its group";
        if (current.size() <= limit.size() || !current.starts_with(limit)) return "";
        current = std::string(DirectoryOf(current));
        while (current.size() > 1 && current.back() == '/') current.pop_back();
    }
}

void ReplaceFile(const std::string& path, std::string_view content) {
    std::string directory(DirectoryOf(path));
    std::error_code error;
    if (!directory.empty()) std::filesystem::create_directories(directory, error);
    if (error) throw IOException("Cannot make " + directory + ": " + error.message());
    SystemFactory& factory = *SystemFactory::sInstance;
    std::string temporary = HiddenSibling(path, ".tmp");
    Ref<OutputStream> stream = factory.OpenForWrite(temporary, 0);
    stream->Write(content.data(), content.size());
    stream->Close();
    if (!factory.CreateFile(temporary)->Rename(path)) {
        throw IOException("Cannot rename " + temporary + " to " + path + ": " +
                          std::strerror(errno));
    }
}

SystemFactory& SystemFactory::Real() {
    static PosixFactory factory;
    return factory;
}

SystemFactory* SystemFactory::sInstance = &SystemFactory::Real();

}  // namespace Pelinor::System
