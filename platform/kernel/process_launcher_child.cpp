// The forked child's steps between the fork and execve: joining its group, taking its
// output pipes, shedding what the daemon set up, and telling the daemon why it failed.
#include "platform/kernel/process_launcher_child.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Pelinor::System::Launcher {

namespace {

constexpr int kExecFailedStatus = 127;

char* const kEmptyEnvironment[] = {nullptr};

// Direct system calls: glibc's wrappers change the ids of every thread it knows of, and a
// child made by a bare clone3 still lists the daemon's threads (and may find their lock held).
// 32-bit x86 and arm keep the 16-bit id calls under the plain names.
#ifdef SYS_setresuid32
constexpr long kSetGroups = SYS_setgroups32;
constexpr long kSetResGid = SYS_setresgid32;
constexpr long kSetResUid = SYS_setresuid32;
#else
constexpr long kSetGroups = SYS_setgroups;
constexpr long kSetResGid = SYS_setresgid;
constexpr long kSetResUid = SYS_setresuid;
#endif

[[noreturn]] void ReportAndExit(int reportFd) {
    int error = errno;
    if (::write(reportFd, &error, sizeof error) < 0) {
        // Nothing left to tell; the parent sees EOF and a vanished child.
    }
    ::_exit(kExecFailedStatus);
}

// The gid before the uid, while the right to change it is still held. Leaving uid 0 for
// another clears the permitted, effective and ambient capabilities; no_new_privs keeps execve
// from granting any again.
bool BecomeUser(const Credentials& user) {
    uid_t uid = user.uid;
    gid_t gid = user.gid;
    return ::syscall(kSetGroups, 0, nullptr) == 0 && ::syscall(kSetResGid, gid, gid, gid) == 0 &&
           ::syscall(kSetResUid, uid, uid, uid) == 0 &&
           ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

}  // namespace

[[noreturn]] void ExecInGroup(const ChildPlan& plan) {
    // Join first: not one instruction of the plugin may run outside its group.
    if (plan.joinFd >= 0 && ::write(plan.joinFd, "0", 1) != 1) ReportAndExit(plan.reportFd);
    if (plan.joinPidsFd >= 0 && ::write(plan.joinPidsFd, "0", 1) != 1) {
        ReportAndExit(plan.reportFd);
    }
    // After joining, so that the kernel weighs the move against the daemon's rights.
    if (plan.user && !BecomeUser(*plan.user)) ReportAndExit(plan.reportFd);
    if (::dup2(plan.stdoutFd, STDOUT_FILENO) < 0 || ::dup2(plan.stderrFd, STDERR_FILENO) < 0) {
        ReportAndExit(plan.reportFd);
    }

    // Dispositions the daemon set (ignored signals) would survive execve.
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &defaults, nullptr);  // refused for SIGKILL, SIGSTOP: harmless
    }

    // Marked rather than closed, so the report pipe stays open until execve succeeds.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        for (int fd = 3; fd < plan.descriptorLimit; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }

    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(plan.path, plan.argv, kEmptyEnvironment);
    ReportAndExit(plan.reportFd);
}

pid_t CloneIntoGroup(int groupFd, int& pidfd) {
    clone_args args{};
    args.flags = CLONE_INTO_CGROUP | CLONE_PIDFD;
    args.pidfd = reinterpret_cast<uint64_t>(&pidfd);
    args.exit_signal = SIGCHLD;
    args.cgroup = static_cast<uint64_t>(groupFd);
    return static_cast<pid_t>(::syscall(SYS_clone3, &args, sizeof args));
}

}  // namespace Pelinor::System::Launcher
