// Launching plugin processes into the resource pool, and signalling them.
#pragma once

#include <cerrno>
#include <cstdint>

namespace Pelinor::System {

constexpr int kSignalProbe = 0;
constexpr int kSignalTerminate = 15;  // SIGTERM
constexpr int kNoSuchProcess = ESRCH;

class ProcessLauncher {
  public:
    virtual ~ProcessLauncher() = default;

    // Starts `path` with `argv` (null-terminated), an empty environment and only
    // descriptors 0, 1 and 2, inside a child group of the resource pool capped at the
    // memory named by argv's "++group=NAME,mem=MB" argument. The process never runs
    // outside that group. Returns 0 and the new pid, or an errno value.
    virtual int Launch(const char* path, char* const argv[], int32_t& pid) = 0;
    // kill(pid, signal) for a process this launcher started: 0 or an errno value.
    // A pid that was reused by another process is never signalled (ESRCH).
    virtual int Signal(int32_t pid, int signal) = 0;
    // Stops tracking the pid.
    virtual void Forget(int32_t pid) = 0;

    static ProcessLauncher* sInstance;
    static ProcessLauncher& Real();
};

}  // namespace Pelinor::System
