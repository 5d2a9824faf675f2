// Where the resource pool lives, and the few cgroup file operations that the
// kernel-information interface and the process launcher share. Internal to platform/.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/format.h"
#include "platform/base/unique_fd.h"
#include "platform/kernel/ktab.h"

namespace Pelinor::Cgroup {

enum class Kind { kV1Memory, kV2 };

struct Hierarchy {
    std::string path;
    Kind kind = Kind::kV2;
};

// The hierarchy's mount, and the variable that puts it elsewhere (a delegated group, tests).
inline constexpr const char* kUnifiedMount = "/sys/fs/cgroup";
inline constexpr const char* kRootVariable = "TESSARD_CGROUP_ROOT";

// The pool's place below the hierarchy, and the name plugins ask for it by.
using Ktab::kPoolPath;
inline constexpr std::string_view kPoolName =
    std::string_view(kPoolPath).substr(std::string_view(kPoolPath).rfind('/') + 1);

inline bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// Reads $TESSARD_CGROUP_ROOT (default /sys/fs/cgroup) on every call, so a new value takes
// effect at once. False when neither the root nor its memory/ child can cap memory.
inline bool FindHierarchy(Hierarchy& out) {
    const char* variable = std::getenv(kRootVariable);
    std::string root = variable != nullptr && *variable != '\0' ? variable : kUnifiedMount;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (Exists(root + "/cgroup.controllers")) {
        out = {root, Kind::kV2};
    } else if (Exists(root + "/memory.limit_in_bytes")) {
        out = {root, Kind::kV1Memory};
    } else if (Exists(root + "/memory/memory.limit_in_bytes")) {
        out = {root + "/memory", Kind::kV1Memory};
    } else {
        return false;
    }
    return true;
}

inline std::string PoolPath(const Hierarchy& hierarchy) {
    return hierarchy.path + "/" + std::string(kPoolPath);
}

// On v1 the pids controller has a hierarchy of its own, mounted beside the memory one: the
// pool's counterpart there is the same path with the memory mount's directory replaced.
// Empty on v2 (one hierarchy holds both) and where v1 has no pids hierarchy beside memory.
inline std::string PidsPoolPath(const Hierarchy& hierarchy) {
    if (hierarchy.kind != Kind::kV1Memory) return {};
    const std::string& path = hierarchy.path;
    size_t at = path.find("/memory");
    size_t end = at + std::string_view("/memory").size();
    if (at == std::string::npos || (end != path.size() && path[end] != '/')) return {};
    std::string pids = path.substr(0, at) + "/pids";
    if (!Exists(pids + "/pids.max") && !Exists(pids + "/cgroup.procs")) return {};
    return pids + path.substr(end) + "/" + std::string(kPoolPath);
}

inline const char* PeakFile(Kind kind) {
    return kind == Kind::kV2 ? "memory.peak" : "memory.max_usage_in_bytes";
}

inline const char* LimitFile(Kind kind) {
    return kind == Kind::kV2 ? "memory.max" : "memory.limit_in_bytes";
}

using Fd = System::UniqueFd;

// Reads a control file holding one decimal number. 0 or an errno value.
inline int ReadNumber(const std::string& path, uint64_t& value) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return errno;
    char text[32];
    ssize_t length;
    do {
        length = ::read(fd.Get(), text, sizeof text);
    } while (length < 0 && errno == EINTR);
    if (length < 0) return errno;
    const char* end = text + length;
    if (end > text && end[-1] == '\n') --end;
    return ParseWhole(std::string_view(text, static_cast<size_t>(end - text)), value) ? 0 : EINVAL;
}

// Writes a control file in one write, as cgroup files expect. 0 or an errno value.
inline int WriteText(const std::string& path, std::string_view text) {
    Fd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd) return errno;
    ssize_t written;
    do {
        written = ::write(fd.Get(), text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) return errno;
    return static_cast<size_t>(written) == text.size() ? 0 : EIO;
}

// The names of a group's child groups, which are its subdirectories. 0 or an errno value.
inline int ListChildGroups(const std::string& group, std::vector<std::string>& names) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(group.c_str()), ::closedir);
    if (!dir) return errno;
    names.clear();
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir.get());
        if (entry == nullptr) return errno;
        std::string_view name = entry->d_name;
        // cgroup file systems always fill in d_type.
        if (entry->d_type == DT_DIR && name != "." && name != "..") names.emplace_back(name);
    }
}

}  // namespace Pelinor::Cgroup
