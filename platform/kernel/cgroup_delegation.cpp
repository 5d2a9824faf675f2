// The resource pool inside a cgroup v2 subtree that systemd delegated to the daemon.
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process.h"

namespace Pelinor::System {

namespace {

using Service::Log;
using Service::Logger;
using Service::LogLevel;

// The daemon's own leaf: v2 lets only leaves hold processes once controllers are handed down.
constexpr const char* kDaemonLeaf = "daemon";
// The whole pool's cap when the daemon makes it; the operator may lower it while it runs.
constexpr uint64_t kPoolCapBytes = uint64_t{512} << 20;
// systemd marks the groups it delegates with one of these extended attributes.
constexpr const char* kDelegateMarks[] = {"trusted.delegate", "user.delegate"};
constexpr const char* kSystemdVariable = "INVOCATION_ID";
constexpr const char* kServiceGroup = "/tessard.service";

// The daemon's group as /proc/self/cgroup names it on a v2 host ("0::/path").
std::string OwnGroup() {
    std::ifstream in("/proc/self/cgroup");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("0::")) return line.substr(3);
    }
    return {};
}

// systemd 251 and later mark the groups they delegate; earlier ones are recognised by
// the service's own group, given that systemd started the daemon.
bool Delegated(const std::string& group) {
    for (const char* mark : kDelegateMarks) {
        char value[2] = {};
        if (::getxattr(group.c_str(), mark, value, sizeof value) >= 1 && value[0] == '1') {
            return true;
        }
    }
    return std::getenv(kSystemdVariable) != nullptr && group.ends_with(kServiceGroup);
}

int MakeGroup(const std::string& path) {
    return ::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST ? 0 : errno;
}

// Hands memory and, where present, pids down to the group's children.
int HandDown(const std::string& group) {
    if (int error = Cgroup::WriteText(group + "/cgroup.subtree_control", "+memory")) return error;
    Cgroup::WriteText(group + "/cgroup.subtree_control", "+pids");
    return 0;
}

int Adopt(const std::string& own) {
    std::string leaf = own + "/" + kDaemonLeaf;
    if (int error = MakeGroup(leaf)) return error;
    if (int error = Cgroup::WriteText(leaf + "/cgroup.procs", "0")) return error;
    // Each group on the way to the pool, and the pool itself, hands the controllers down.
    std::string group = own;
    std::string_view rest = Cgroup::kPoolPath;
    for (;;) {
        if (int error = HandDown(group)) return error;
        if (rest.empty()) break;
        size_t slash = std::min(rest.find('/'), rest.size());
        group.append("/").append(rest.substr(0, slash));
        rest.remove_prefix(std::min(slash + 1, rest.size()));
        if (int error = MakeGroup(group)) return error;
    }
    std::ifstream cap(group + "/memory.max");
    if (std::string text; cap >> text && text == "max") {
        Cgroup::WriteText(group + "/memory.max", std::to_string(kPoolCapBytes));
    }
    return 0;
}

}  // namespace

void AdoptDelegatedCgroup() {
    const char* chosen = std::getenv(Cgroup::kRootVariable);
    if (chosen != nullptr && *chosen != '\0') return;
    if (!Cgroup::Exists(std::string(Cgroup::kUnifiedMount) + "/cgroup.controllers")) return;
    std::string relative = OwnGroup();
    if (relative.empty() || relative == "/") return;
    std::string own = Cgroup::kUnifiedMount + relative;
    // A leaf of our own already (a restart in place): the delegated group is its parent.
    if (std::string leaf = std::string("/") + kDaemonLeaf; own.ends_with(leaf)) {
        own.resize(own.size() - leaf.size());
    }
    if (!Delegated(own)) return;
    if (int error = Adopt(own)) {
        Log(Logger::sDefaultLogger, LogLevel::Error,
            "Cannot keep the plugin pool in the delegated group %1: %2", own, std::strerror(error));
        return;
    }
    // Every later lookup of the pool, the daemon's and its tests', goes through the variable.
    ::setenv(Cgroup::kRootVariable, own.c_str(), 1);
    Log(Logger::sDefaultLogger, LogLevel::Info, "Plugin pool kept in the delegated group %1", own);
}

}  // namespace Pelinor::System
