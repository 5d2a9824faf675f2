// File-system objects and the system factory: the seam through which the daemon
// touches files and sockets. Tests install a factory of their own to inject faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/object.h"

namespace Pelinor::System {

class OutputStream : public ObjectImpl {
  public:
    // Both throw IOException on failure.
    virtual void Write(const void* data, size_t size) = 0;
    virtual void Close() = 0;  // everything written reaches the file
};

class File : public ObjectImpl {
  public:
    // Link creation flag: replace an existing symbolic link (never anything else)
    // without a moment in which the link is missing.
    static constexpr int kReplaceLink = 1;

    virtual const std::string& GetPath() const = 0;
    std::string_view GetName() const;  // last path component, as long as the file lives
    std::string ToString() const override { return GetPath(); }

    virtual bool Exists() const = 0;       // the entry itself, links not followed
    virtual bool IsDirectory() const = 0;  // follows links
    virtual bool IsSymlink() const = 0;
    // The directory's own entries (no "." and ".."); throws IOException.
    virtual std::vector<Ref<File>> ListFiles() const = 0;
    // Moves the entry to `target`, replacing what is there; an empty reference on failure.
    virtual Ref<File> Rename(const std::string& target) = 0;
    // Creates a symbolic link at `linkPath` naming this file, relative to the
    // link's directory when both share it. Returns false on failure.
    virtual bool CreateSymlink(const std::string& linkPath, int flags) const = 0;
};

class ServerSocket;

class SystemFactory {
  public:
    virtual ~SystemFactory() = default;

    virtual Ref<File> CreateFile(const std::string& path) = 0;
    // Creates a new file for writing, first removing whatever stands at the path (never
    // writing through it); `flags` is reserved and 0. Throws IOException.
    virtual Ref<OutputStream> OpenForWrite(const std::string& path, int flags) = 0;
    virtual Ref<ServerSocket> CreateServerSocket() = 0;

    // The factory in use; the real one unless a test installed another.
    static SystemFactory* sInstance;
    static SystemFactory& Real();
};

// Why `path` cannot be trusted to hold only what root put there, or "" when it can (or does
// not exist): it, or a directory from it up to `top`, is owned by another user than root (or
// the daemon's own), or is writable by its group or by everyone.
std::string TamperProblem(const std::string& path, const std::string& top);

// Replaces the file at `path` with `content` through a hidden temporary file and a rename,
// so a reader sees the old or the new file whole; makes missing parent directories.
// Throws IOException.
void ReplaceFile(const std::string& path, std::string_view content);

}  // namespace Pelinor::System
