// Starts plugins inside a memory-capped child group of the resource pool, with their output
// piped and their process tracked by a pidfd, so that nothing a plugin started outlives its stop.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/base/format.h"
#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process.h"
#include "platform/kernel/process_launcher.h"
#include "platform/kernel/process_launcher_child.h"
#include "platform/threads/scheduler_loop.h"

namespace Pelinor::System {

namespace Launcher {

namespace {

namespace net = boost::asio;
using namespace std::chrono_literals;
using Cgroup::Fd;
using Service::LogLevel;

constexpr std::string_view kPoolArgument = "++group=";
constexpr std::string_view kMemoryField = "mem=";
constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kLargestMegabytes = INT64_MAX / kMiB;
constexpr int kCreateAttempts = 64;
// Bounds the descriptor loop used when close_range is missing.
constexpr rlim_t kMostDescriptors = 1 << 20;

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
    return ParseWhole(memory.substr(kMemoryField.size()), megabytes) && megabytes > 0 &&
           megabytes <= kLargestMegabytes;
}

bool IsDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// A direct system call: glibc 2.36's <sys/pidfd.h> declares its wrapper without C linkage.
int PidfdOpen(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

int LinuxProcessLauncher::Launch(const char* path, char* const argv[], const RunOptions& options,
                                 int32_t& pid) {
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
    std::string pidsPool = Cgroup::PidsPoolPath(hierarchy);
    if (!IsDirectory(pidsPool)) pidsPool.clear();
    if (!pidsPool.empty()) Sweep(pidsPool);

    auto run = std::make_shared<Run>();
    if (int error = CreateGroup(pool, run->groupName)) return error;
    run->group = pool + "/" + run->groupName;
    run->kind = hierarchy.kind;
    run->options = options;
    int error = SetLimits(run->group, hierarchy.kind, megabytes, options.pidsMax);
    if (error == 0 && options.pidsMax > 0 && !pidsPool.empty()) {
        run->pidsGroup = pidsPool + "/" + run->groupName;
        error = ::mkdir(run->pidsGroup.c_str(), 0755) == 0 ? 0 : errno;
        if (error == 0) {
            error =
                Cgroup::WriteText(run->pidsGroup + "/pids.max", std::to_string(options.pidsMax));
        }
    }
    if (error == 0) error = Start(path, argv, *run);
    std::lock_guard lock(mutex);
    if (error != 0) {
        if (!run->pidsGroup.empty()) ::rmdir(run->pidsGroup.c_str());
        ::rmdir(run->group.c_str());
        activeGroups.erase(run->groupName);
        return error;
    }
    // The pid of a run that ended and left processes behind was handed out again: what
    // it left is stopped now, as its batch would have done.
    if (auto old = runs.find(run->pid); old != runs.end()) {
        auto previous = old->second;
        runs.erase(old);
        BeginStop(previous, 0ms);
    }
    runs.emplace(run->pid, run);
    net::post(SchedulerLoop(), [this, run] {
        std::lock_guard lock(mutex);
        WatchExit(run);
        ReadOutput(run, *run->out);
        ReadOutput(run, *run->err);
    });
    pid = run->pid;
    return 0;
}

// Makes a uniquely named child group, marked active before it exists so that no
// sweep can take it away before its process has joined.
int LinuxProcessLauncher::CreateGroup(const std::string& pool, std::string& name) {
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

int LinuxProcessLauncher::SetLimits(const std::string& group, Cgroup::Kind kind, uint64_t megabytes,
                                    uint32_t pidsMax) {
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
    // Only where the pids controller shares the pool's hierarchy.
    if (pidsMax > 0 && Cgroup::Exists(group + "/pids.max")) {
        if (int error = Cgroup::WriteText(group + "/pids.max", std::to_string(pidsMax))) {
            return error;
        }
    }
    return 0;
}

// Starts the child in its group with its output piped; 0 once execve succeeded, or the
// errno value of the step that failed.
int LinuxProcessLauncher::Start(const char* path, char* const argv[], Run& run) {
    bool intoGroup = run.kind == Cgroup::Kind::kV2;
    Fd join(::open((run.group + (intoGroup ? "" : "/cgroup.procs")).c_str(),
                   (intoGroup ? O_RDONLY | O_DIRECTORY : O_WRONLY) | O_CLOEXEC));
    if (!join) return errno;
    Fd joinPids;
    if (!run.pidsGroup.empty()) {
        joinPids = Fd(::open((run.pidsGroup + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC));
        if (!joinPids) return errno;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
    Fd reportRead(ends[0]);
    Fd reportWrite(ends[1]);
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return errno;
    Fd outRead(ends[0]);
    Fd outWrite(ends[1]);
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return errno;
    Fd errRead(ends[0]);
    Fd errWrite(ends[1]);
    // The plugin's ends block like any inherited stdout.
    ::fcntl(outWrite.Get(), F_SETFL, 0);
    ::fcntl(errWrite.Get(), F_SETFL, 0);
    rlimit descriptors{};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    ChildPlan plan{path,
                   argv,
                   intoGroup ? -1 : join.Get(),
                   joinPids.Get(),
                   outWrite.Get(),
                   errWrite.Get(),
                   reportWrite.Get(),
                   static_cast<int>(std::min(descriptors.rlim_cur, kMostDescriptors)),
                   run.options.user};

    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    int pidfdValue = -1;
    pid_t child = intoGroup ? CloneIntoGroup(join.Get(), pidfdValue) : ::fork();
    if (child == 0) ExecInGroup(plan);
    int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (child < 0) return forkError;
    run.started = Clock::now();
    reportWrite.Reset();
    outWrite.Reset();
    errWrite.Reset();

    // Opened at once: the child is ours and unreaped, so the pid cannot be another's.
    Fd pidfd(intoGroup ? pidfdValue : PidfdOpen(child));
    int pidfdError = pidfd ? 0 : errno;

    int childError = 0;
    ssize_t got;
    do {
        got = ::read(reportRead.Get(), &childError, sizeof childError);
    } while (got < 0 && errno == EINTR);
    if (got != 0 || !pidfd) {  // end of file means execve closed the pipe
        if (got == 0) {
            childError = pidfdError;  // untrackable means unstoppable: not run at all
        } else if (got < 0) {
            childError = errno;
        } else if (got != sizeof childError) {
            childError = EIO;
        }
        ::kill(child, SIGKILL);  // still our unreaped child: the pid is not someone else's
        while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
        }
        return childError;
    }
    run.pid = child;
    net::io_context& loop = SchedulerLoop();
    run.exit = std::make_unique<net::posix::stream_descriptor>(loop, pidfd.Release());
    run.out = std::make_unique<OutputStream>(loop, outRead.Release(), LogLevel::Verbose);
    run.err = std::make_unique<OutputStream>(loop, errRead.Release(), LogLevel::Warning);
    return 0;
}

}  // namespace Launcher

ProcessLauncher& ProcessLauncher::Real() {
    static Launcher::LinuxProcessLauncher real;
    return real;
}

ProcessLauncher* ProcessLauncher::sInstance = &ProcessLauncher::Real();

}  // namespace Pelinor::System
