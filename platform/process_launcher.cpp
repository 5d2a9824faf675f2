// Starts plugins inside a memory-capped child group of the resource pool, and signals
// them through pidfds, so a pid the kernel has handed to another process is never hit.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/cgroup_paths.h"
#include "platform/logging.h"
#include "platform/process.h"

namespace Pelinor::System {

namespace {

using Cgroup::Fd;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

constexpr std::string_view kPoolArgument = "++group=";
constexpr std::string_view kMemoryField = "mem=";
constexpr std::string_view kGroupPrefix = "run-";
constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kLargestMegabytes = INT64_MAX / kMiB;
constexpr int kCreateAttempts = 64;
constexpr int kExecFailedStatus = 127;
// Bounds the descriptor loop used when close_range is missing.
constexpr rlim_t kMostDescriptors = 1 << 20;

char* const kEmptyEnvironment[] = {nullptr};

// Finds the one "++group=tessard-plugins,mem=MB" argument and returns its megabytes.
bool ParsePoolArgument(char* const argv[], uint64_t& megabytes) {
    std::string_view request;
    for (size_t i = 1; argv[i] != nullptr; ++i) {
        std::string_view argument = argv[i];
        if (argument.substr(0, kPoolArgument.size()) != kPoolArgument) continue;
        if (!request.empty()) return false;  // two requests: which one was meant?
        request = argument.substr(kPoolArgument.size());
    }
    size_t comma = request.find(',');
    if (comma == std::string_view::npos || request.substr(0, comma) != Cgroup::kPoolName) {
        return false;
    }
    std::string_view memory = request.substr(comma + 1);
    if (memory.substr(0, kMemoryField.size()) != kMemoryField) return false;
    std::string_view digits = memory.substr(kMemoryField.size());
    const char* end = digits.data() + digits.size();
    auto [stop, error] = std::from_chars(digits.data(), end, megabytes);
    return !digits.empty() && error == std::errc() && stop == end && megabytes > 0 &&
           megabytes <= kLargestMegabytes;
}

bool IsDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The group names are "run-<daemon pid>-<counter>"; the daemon pid is 0 for other names.
pid_t OwnerOf(std::string_view name) {
    if (name.substr(0, kGroupPrefix.size()) != kGroupPrefix) return 0;
    name.remove_prefix(kGroupPrefix.size());
    pid_t owner = 0;
    auto [stop, error] = std::from_chars(name.data(), name.data() + name.size(), owner);
    return error == std::errc() && stop != name.data() + name.size() && *stop == '-' ? owner : 0;
}

// Direct system calls: glibc 2.36's <sys/pidfd.h> declares its wrappers without C linkage.
int PidfdOpen(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int PidfdSendSignal(int pidfd, int signal) {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

[[noreturn]] void ReportAndExit(int reportFd) {
    int error = errno;
    if (::write(reportFd, &error, sizeof error) < 0) {
        // Nothing left to tell; the parent sees EOF and a vanished child.
    }
    ::_exit(kExecFailedStatus);
}

// Runs in the forked child of a threaded process: async-signal-safe calls only.
// All signals arrive blocked, so no handler of the daemon can run here.
[[noreturn]] void ExecInGroup(const char* path, char* const argv[], int procsFd, int reportFd,
                              int descriptorLimit) {
    // Join first: not one instruction of the plugin may run outside its group.
    if (::write(procsFd, "0", 1) != 1) ReportAndExit(reportFd);

    // The daemon ignores SIGCHLD, and ignored signals stay ignored across execve.
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &defaults, nullptr);  // refused for SIGKILL, SIGSTOP: harmless
    }

    // Marked rather than closed, so the report pipe stays open until execve succeeds.
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        for (int fd = 3; fd < descriptorLimit; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }

    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(path, argv, kEmptyEnvironment);
    ReportAndExit(reportFd);
}

void Reap(pid_t pid) {
    // ECHILD when SIGCHLD is ignored: the kernel has reaped it already.
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

class LinuxProcessLauncher : public ProcessLauncher {
  public:
    int Launch(const char* path, char* const argv[], int32_t& pid) override {
        uint64_t megabytes = 0;
        if (path == nullptr || argv == nullptr || argv[0] == nullptr ||
            !ParsePoolArgument(argv, megabytes)) {
            return EINVAL;
        }
        Cgroup::Hierarchy hierarchy;
        if (!Cgroup::FindHierarchy(hierarchy)) return ENOENT;
        std::string pool = Cgroup::PoolPath(hierarchy);
        if (!IsDirectory(pool)) return ENOENT;
        Sweep(pool);

        std::string name;
        if (int error = CreateGroup(pool, name)) return error;
        std::string group = pool + "/" + name;
        Fd pidfd;
        pid_t child = 0;
        int error = SetLimit(group, hierarchy.kind, megabytes);
        if (error == 0) error = Start(path, argv, group, child, pidfd);
        std::lock_guard lock(mutex);
        if (error != 0) {
            ::rmdir(group.c_str());
            activeGroups.erase(name);
            return error;
        }
        // A pid reused after an unforgotten end replaces the old entry; the old group
        // is then swept like any finished one.
        if (auto old = processes.find(child); old != processes.end()) {
            activeGroups.erase(old->second.group);
        }
        // Without a pidfd (the process ended at once) Signal answers ESRCH, but the
        // group stays until Forget, like any other, for its statistics.
        processes.insert_or_assign(child, Tracked{std::move(pidfd), std::move(name)});
        pid = child;
        return 0;
    }

    int Signal(int32_t pid, int signal) override {
        std::lock_guard lock(mutex);
        auto found = processes.find(pid);
        if (found == processes.end() || !found->second.pidfd) return ESRCH;
        return PidfdSendSignal(found->second.pidfd.Get(), signal) == 0 ? 0 : errno;
    }

    void Forget(int32_t pid) override {
        {
            std::lock_guard lock(mutex);
            if (auto found = processes.find(pid); found != processes.end()) {
                activeGroups.erase(found->second.group);
                processes.erase(found);
            }
        }
        Cgroup::Hierarchy hierarchy;
        if (Cgroup::FindHierarchy(hierarchy)) Sweep(Cgroup::PoolPath(hierarchy));
    }

  private:
    struct Tracked {
        Fd pidfd;
        std::string group;
    };

    // Makes a uniquely named child group, marked active before it exists so that no
    // sweep can take it away before its process has joined.
    int CreateGroup(const std::string& pool, std::string& name) {
        for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
            name = std::string(kGroupPrefix) + std::to_string(::getpid()) + "-" +
                   std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
            {
                std::lock_guard lock(mutex);
                activeGroups.insert(name);
            }
            if (::mkdir((pool + "/" + name).c_str(), 0755) == 0) return 0;
            int error = errno;
            {
                std::lock_guard lock(mutex);
                activeGroups.erase(name);
            }
            // A daemon restarted under the same pid (as in a container) finds its
            // predecessor's groups that still hold processes.
            if (error != EEXIST) return error;
        }
        return EEXIST;
    }

    static int SetLimit(const std::string& group, Cgroup::Kind kind, uint64_t megabytes) {
        std::string bytes = std::to_string(megabytes * kMiB);
        if (int error = Cgroup::WriteText(group + "/" + Cgroup::LimitFile(kind), bytes)) {
            return error;
        }
        // Swap would let a plugin past its cap. Best effort: swap accounting may be off.
        if (kind == Cgroup::Kind::kV1Memory) {
            Cgroup::WriteText(group + "/memory.memsw.limit_in_bytes", bytes);
        } else {
            Cgroup::WriteText(group + "/memory.swap.max", "0");
        }
        return 0;
    }

    // Forks a child that joins `group` and execs; 0 once execve succeeded, or the
    // errno value of the step that failed.
    static int Start(const char* path, char* const argv[], const std::string& group, pid_t& child,
                     Fd& pidfd) {
        Fd procs(::open((group + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC));
        if (!procs) return errno;
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
        Fd reportRead(ends[0]);
        Fd reportWrite(ends[1]);
        rlimit descriptors{};
        ::getrlimit(RLIMIT_NOFILE, &descriptors);
        int descriptorLimit = static_cast<int>(std::min(descriptors.rlim_cur, kMostDescriptors));

        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &previous);
        child = ::fork();
        if (child == 0) {
            ExecInGroup(path, argv, procs.Get(), reportWrite.Get(), descriptorLimit);
        }
        int forkError = errno;
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        if (child < 0) return forkError;
        reportWrite.Reset();

        // Opened at once, while the child cannot have been reaped unless it already ended.
        pidfd = Fd(PidfdOpen(child));
        int pidfdError = pidfd ? 0 : errno;

        int childError = 0;
        ssize_t got;
        do {
            got = ::read(reportRead.Get(), &childError, sizeof childError);
        } while (got < 0 && errno == EINTR);
        if (got != 0) {  // end of file means execve closed the pipe
            if (got < 0) {
                childError = errno;
                if (pidfd) PidfdSendSignal(pidfd.Get(), SIGKILL);
            } else if (got != sizeof childError) {
                childError = EIO;
            }
            pidfd.Reset();
            Reap(child);
            return childError;
        }
        if (!pidfd && pidfdError != ESRCH) {
            // Untrackable means unsignallable: better not to run it at all. It is still
            // our unreaped child, or already gone, so the pid is not someone else's.
            ::kill(child, SIGKILL);
            Reap(child);
            return pidfdError;
        }
        return 0;
    }

    // Removes the empty groups that no launch or tracked process holds: this daemon's
    // finished ones, and those of earlier daemons that are no longer running.
    // A group that still holds processes refuses with EBUSY and stays.
    void Sweep(const std::string& pool) {
        std::vector<std::string> names;
        if (Cgroup::ListChildGroups(pool, names) != 0) return;
        pid_t self = ::getpid();
        std::lock_guard lock(mutex);
        for (const auto& name : names) {
            pid_t owner = OwnerOf(name);
            if (owner <= 0 || activeGroups.count(name) != 0) continue;
            if (owner != self && (::kill(owner, 0) == 0 || errno != ESRCH)) continue;
            std::string group = pool + "/" + name;
            if (::rmdir(group.c_str()) == 0) continue;
            int error = errno;
            if (error != EBUSY && error != ENOENT) {
                Log(Logger::sDefaultLogger, LogLevel::Warning, "Cannot remove plugin group %1: %2",
                    group, std::strerror(error));
            }
        }
    }

    std::atomic<uint64_t> counter{0};
    std::mutex mutex;
    std::unordered_map<int32_t, Tracked> processes;
    std::unordered_set<std::string> activeGroups;  // being launched, or of a tracked pid
};

}  // namespace

ProcessLauncher& ProcessLauncher::Real() {
    static LinuxProcessLauncher real;
    return real;
}

ProcessLauncher* ProcessLauncher::sInstance = &ProcessLauncher::Real();

}  // namespace Pelinor::System
