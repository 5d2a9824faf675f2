// What the forked child of a launch does before execve. Internal to platform/.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "platform/kernel/process.h"

namespace Pelinor::System::Launcher {

// What the forked child needs, prepared before the fork: it may not allocate.
struct ChildPlan {
    const char* path;
    char* const* argv;
    int joinFd;      // cgroup.procs of its group, or -1 when the kernel put it there already
    int joinPidsFd;  // cgroup.procs of its group in a v1 pids hierarchy, or -1
    int stdoutFd;
    int stderrFd;
    int reportFd;
    int descriptorLimit;
    std::optional<Credentials> user;
};

// Runs in the forked child of a threaded process: async-signal-safe calls only.
// All signals arrive blocked, so no handler of the daemon can run here.
[[noreturn]] void ExecInGroup(const ChildPlan& plan);

// v2 starts the child directly in its group, which spares the kernel a migration.
pid_t CloneIntoGroup(int groupFd, int& pidfd);

}  // namespace Pelinor::System::Launcher
