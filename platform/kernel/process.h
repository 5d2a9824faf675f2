// Launching plugin processes into the resource pool, watching them end and stopping them.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/base/logging.h"

namespace Pelinor::System {

constexpr int kSignalProbe = 0;
constexpr int kSignalTerminate = 15;  // SIGTERM
constexpr int kNoSuchProcess = ESRCH;

// How a run ended, known once its process has been reaped.
struct RunEnd {
    bool signalled = false;  // `status` is a signal number, else an exit status
    int status = 0;
    bool outOfMemory = false;  // the kernel killed a process of its group for memory
    bool stopped = false;      // Stop() reached it before it ended
    bool killed = false;       // it outlived the grace period after SIGTERM: SIGKILL
    uint64_t peakKb = 0;       // peak memory of its group
    std::chrono::milliseconds runTime{0};
};

// The user a plugin runs as: its uid and primary gid.
struct Credentials {
    uint32_t uid = 0;
    uint32_t gid = 0;
};

struct RunOptions {
    std::string name;             // prefixes its output lines in the log
    Ref<Service::Logger> logger;  // where its output goes: stdout at verbose, stderr at warning
    uint32_t pidsMax = 0;         // process cap of its group where the pids controller is; 0: none
    // Set: it runs as that user, with no supplementary group, and no setuid binary or file
    // capability gives it privileges back. None: it runs as the daemon does.
    std::optional<Credentials> user;
    // Called once, on the event loop, when the process has ended; never from Launch.
    std::function<void(const RunEnd&)> onEnd;
};

class ProcessLauncher {
  public:
    virtual ~ProcessLauncher() = default;

    // Starts `path` with `argv` (null-terminated), an empty environment, descriptor 0 and
    // its stdout and stderr piped into the log, inside a child group of the resource pool
    // capped at the memory named by argv's "++group=NAME,mem=MB" argument. The process
    // never runs outside that group. Returns 0 and the new pid, or an errno value.
    virtual int Launch(const char* path, char* const argv[], const RunOptions& options,
                       int32_t& pid) = 0;
    // kill(pid, signal) for a run this launcher started and has not reaped: 0 or an errno
    // value. A pid that was reused by another process is never signalled (ESRCH).
    virtual int Signal(int32_t pid, int signal) = 0;
    // Stops the run's whole group: SIGTERM to each of its processes, SIGKILL to what is left
    // after `grace`, then the group is removed. Returns at once: 0 when the run's own
    // process received SIGTERM, ESRCH when it had ended (what it left behind is stopped all
    // the same), or an errno value.
    virtual int Stop(int32_t pid, std::chrono::milliseconds grace) = 0;
    // Blocks until every run has ended and its group is gone, at most `timeout`; false
    // when some are left. For the daemon's stop only.
    virtual bool WaitIdle(std::chrono::milliseconds timeout) = 0;

    static ProcessLauncher* sInstance;
    static ProcessLauncher& Real();
};

// On a cgroup v2 host whose supervisor delegated the daemon's group to it (systemd's
// Delegate=yes), moves the daemon into a leaf of that group and makes the resource pool
// inside it, so that nothing is written outside the delegated subtree. Elsewhere, or when
// $TESSARD_CGROUP_ROOT names the hierarchy, does nothing. Call before any thread that
// reads the environment starts.
void AdoptDelegatedCgroup();

}  // namespace Pelinor::System
