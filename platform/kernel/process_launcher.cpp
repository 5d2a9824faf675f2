// Starts plugins inside a memory-capped child group of the resource pool, reaps them through
// their pidfds on the event loop, pipes their output into the log and stops them group by
// group, so that nothing a plugin started outlives its stop.
#include <fcntl.h>
#include <linux/sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/base/format.h"
#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process.h"
#include "platform/threads/scheduler_loop.h"

namespace Pelinor::System {

namespace {

namespace net = boost::asio;
using namespace std::chrono_literals;
using Cgroup::Fd;
using Service::Log;
using Service::Logger;
using Service::LogLevel;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kPoolArgument = "++group=";
constexpr std::string_view kMemoryField = "mem=";
constexpr std::string_view kGroupPrefix = "run-";
constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kLargestMegabytes = INT64_MAX / kMiB;
constexpr int kCreateAttempts = 64;
constexpr int kExecFailedStatus = 127;
// Bounds the descriptor loop used when close_range is missing.
constexpr rlim_t kMostDescriptors = 1 << 20;
// Output of one run that reaches the log; the rest is read and dropped.
constexpr size_t kOutputCap = 64 * 1024;
constexpr size_t kReadChunk = 4096;
// How often a stopping group is looked at, and how long after SIGKILL its removal is tried.
constexpr auto kStopPoll = 20ms;
constexpr auto kRemovalTimeout = 5s;

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
    return ParseWhole(memory.substr(kMemoryField.size()), megabytes) && megabytes > 0 &&
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

// The processes of a group; empty when it holds none or is gone.
std::vector<pid_t> Members(const std::string& group) {
    std::vector<pid_t> pids;
    std::ifstream procs(group + "/cgroup.procs");
    for (pid_t pid; procs >> pid;) pids.push_back(pid);
    return pids;
}

// Signals every process of the group but `signalled`, which was reached through its pidfd.
void SignalMembers(const std::string& group, int signal, pid_t signalled = 0) {
    for (pid_t pid : Members(group)) {
        if (pid != signalled) ::kill(pid, signal);
    }
}

// The "oom_kill N" count of a group's memory events.
uint64_t OomKills(const std::string& group, Cgroup::Kind kind) {
    std::ifstream events(group +
                         (kind == Cgroup::Kind::kV2 ? "/memory.events" : "/memory.oom_control"));
    std::string key;
    for (uint64_t value = 0; events >> key >> value;) {
        if (key == "oom_kill") return value;
    }
    return 0;
}

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
};

[[noreturn]] void ReportAndExit(int reportFd) {
    int error = errno;
    if (::write(reportFd, &error, sizeof error) < 0) {
        // Nothing left to tell; the parent sees EOF and a vanished child.
    }
    ::_exit(kExecFailedStatus);
}

// Runs in the forked child of a threaded process: async-signal-safe calls only.
// All signals arrive blocked, so no handler of the daemon can run here.
[[noreturn]] void ExecInGroup(const ChildPlan& plan) {
    // Join first: not one instruction of the plugin may run outside its group.
    if (plan.joinFd >= 0 && ::write(plan.joinFd, "0", 1) != 1) ReportAndExit(plan.reportFd);
    if (plan.joinPidsFd >= 0 && ::write(plan.joinPidsFd, "0", 1) != 1) {
        ReportAndExit(plan.reportFd);
    }
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

// v2 starts the child directly in its group, which spares the kernel a migration.
pid_t CloneIntoGroup(int groupFd, int& pidfd) {
    clone_args args{};
    args.flags = CLONE_INTO_CGROUP | CLONE_PIDFD;
    args.pidfd = reinterpret_cast<uint64_t>(&pidfd);
    args.exit_signal = SIGCHLD;
    args.cgroup = static_cast<uint64_t>(groupFd);
    return static_cast<pid_t>(::syscall(SYS_clone3, &args, sizeof args));
}

// One pipe carrying a plugin's stdout or stderr into the log, a line at a time.
struct OutputStream {
    OutputStream(net::io_context& loop, int fd, LogLevel level) : pipe(loop, fd), level(level) {}
    net::posix::stream_descriptor pipe;
    LogLevel level;
    std::array<char, kReadChunk> buffer{};
    std::string partial;
};

// One plugin run, from its launch until its group is gone. Touched under the launcher's lock.
struct Run {
    pid_t pid = 0;
    std::string groupName;
    std::string group;      // path
    std::string pidsGroup;  // its counterpart in a v1 pids hierarchy, or empty
    Cgroup::Kind kind = Cgroup::Kind::kV2;
    RunOptions options;
    Clock::time_point started;
    std::unique_ptr<net::posix::stream_descriptor> exit;  // the pidfd, readable at exit
    std::unique_ptr<OutputStream> out;
    std::unique_ptr<OutputStream> err;
    size_t logged = 0;  // output bytes that reached the log
    bool truncated = false;
    bool reaped = false;
    bool stopping = false;
    bool escalated = false;      // SIGKILL sent
    bool groupKilled = false;    // by cgroup.kill (v2, Linux 5.14 on), which needs no walk
    Clock::time_point deadline;  // of the grace, then of the removal
    std::unique_ptr<net::steady_timer> timer;
};

class LinuxProcessLauncher : public ProcessLauncher {
  public:
    int Launch(const char* path, char* const argv[], const RunOptions& options,
               int32_t& pid) override {
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
                error = Cgroup::WriteText(run->pidsGroup + "/pids.max",
                                          std::to_string(options.pidsMax));
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

    int Signal(int32_t pid, int signal) override {
        std::lock_guard lock(mutex);
        auto found = runs.find(pid);
        if (found == runs.end() || found->second->reaped) return ESRCH;
        return PidfdSendSignal(found->second->exit->native_handle(), signal) == 0 ? 0 : errno;
    }

    int Stop(int32_t pid, std::chrono::milliseconds grace) override {
        std::lock_guard lock(mutex);
        auto found = runs.find(pid);
        if (found == runs.end()) return ESRCH;
        auto run = found->second;
        int result = ESRCH;
        if (!run->reaped) {
            result = PidfdSendSignal(run->exit->native_handle(), SIGTERM) == 0 ? 0 : errno;
        } else if (size_t left = Members(run->group).size(); left > 0 && !run->stopping) {
            Log(run->options.logger, LogLevel::Warning, "%1: stopping %2 processes it left behind",
                run->options.name, left);
        }
        BeginStop(run, grace);
        return result;
    }

    bool WaitIdle(std::chrono::milliseconds timeout) override {
        std::unique_lock lock(mutex);
        return idle.wait_for(lock, timeout, [this] { return runs.empty(); });
    }

  private:
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

    static int SetLimits(const std::string& group, Cgroup::Kind kind, uint64_t megabytes,
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
    static int Start(const char* path, char* const argv[], Run& run) {
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
                       static_cast<int>(std::min(descriptors.rlim_cur, kMostDescriptors))};

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

    // Event loop, under the lock.
    void WatchExit(const std::shared_ptr<Run>& run) {
        run->exit->async_wait(net::posix::stream_descriptor::wait_read,
                              [this, run](const boost::system::error_code& error) {
                                  if (!error) Reaped(run);
                              });
    }

    void Reaped(const std::shared_ptr<Run>& run) {
        std::function<void(const RunEnd&)> onEnd;
        RunEnd end;
        {
            std::lock_guard lock(mutex);
            siginfo_t info{};
            int result = ::waitid(static_cast<idtype_t>(P_PIDFD), run->exit->native_handle(), &info,
                                  WEXITED | WNOHANG);
            if ((result != 0 && errno == EINTR) || (result == 0 && info.si_pid == 0)) {
                WatchExit(run);
                return;
            }
            if (result != 0) info.si_status = -1;  // reaped by someone else: how it ended is lost
            run->reaped = true;
            run->exit->close();
            // What it wrote before it ended comes before the line that says how it ended.
            Drain(*run, *run->out);
            Drain(*run, *run->err);
            end.killed = run->escalated;  // escalated while its own process still ran
            end.signalled = info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED;
            end.status = info.si_status;
            end.outOfMemory = OomKills(run->group, run->kind) > 0;
            uint64_t peak = 0;
            if (Cgroup::ReadNumber(run->group + "/" + Cgroup::PeakFile(run->kind), peak) == 0) {
                end.peakKb = peak / 1024;
            }
            end.stopped = run->stopping;
            end.runTime =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - run->started);
            onEnd = std::move(run->options.onEnd);
            // A group it left processes in stays until its run is stopped.
            if (!run->stopping) TryRemove(run);
        }
        if (onEnd) onEnd(end);
    }

    void ReadOutput(const std::shared_ptr<Run>& run, OutputStream& stream) {
        stream.pipe.async_read_some(
            net::buffer(stream.buffer),
            [this, run, &stream](const boost::system::error_code& error, size_t size) {
                std::lock_guard lock(mutex);
                if (!stream.pipe.is_open()) return;
                Take(*run, stream, std::string_view(stream.buffer.data(), size));
                if (!error) {
                    ReadOutput(run, stream);
                } else {
                    Finish(*run, stream);
                }
            });
    }

    // What is in the pipe now, without waiting: at most a cap's worth, as what it left
    // running may keep writing.
    void Drain(Run& run, OutputStream& stream) {
        for (size_t drained = 0; stream.pipe.is_open() && drained < kOutputCap;) {
            // Not the stream's buffer: a read already done for the pending handler may be in it.
            std::array<char, kReadChunk> chunk;
            ssize_t got = ::read(stream.pipe.native_handle(), chunk.data(), chunk.size());
            if (got < 0 && errno == EINTR) continue;
            if (got == 0) Finish(run, stream);
            if (got <= 0) return;
            Take(run, stream, std::string_view(chunk.data(), static_cast<size_t>(got)));
            drained += static_cast<size_t>(got);
        }
    }

    void Take(Run& run, OutputStream& stream, std::string_view data) {
        while (!data.empty()) {
            size_t newline = data.find('\n');
            if (newline == std::string_view::npos) {
                if (stream.partial.size() + data.size() > kOutputCap) {
                    MarkTruncated(run);
                    stream.partial.clear();
                } else {
                    stream.partial.append(data);
                }
                return;
            }
            stream.partial.append(data.substr(0, newline));
            Emit(run, stream);
            data.remove_prefix(newline + 1);
        }
    }

    void Finish(Run& run, OutputStream& stream) {
        if (!stream.partial.empty()) Emit(run, stream);
        stream.pipe.close();
    }

    void Emit(Run& run, OutputStream& stream) {
        std::string line = std::move(stream.partial);
        stream.partial.clear();
        if (run.truncated) return;
        if (run.logged + line.size() + 1 > kOutputCap) {
            MarkTruncated(run);
            return;
        }
        run.logged += line.size() + 1;
        if (run.options.logger)
            Log(run.options.logger, stream.level, "%1: %2", run.options.name, line);
    }

    void MarkTruncated(Run& run) {
        if (run.truncated) return;
        run.truncated = true;
        if (run.options.logger) {
            Log(run.options.logger, LogLevel::Warning, "%1: output truncated at %2 bytes",
                run.options.name, kOutputCap);
        }
    }

    // Under the lock, from any thread.
    void BeginStop(const std::shared_ptr<Run>& run, std::chrono::milliseconds grace) {
        if (run->stopping) return;
        run->stopping = true;
        // One SIGTERM each: the run's own process had its own through the pidfd, if still there.
        SignalMembers(run->group, SIGTERM, run->pid);
        run->deadline = Clock::now() + grace;
        net::post(SchedulerLoop(), [this, run] {
            std::lock_guard lock(mutex);
            run->timer = std::make_unique<net::steady_timer>(SchedulerLoop());
            Poll(run);
        });
    }

    // Event loop, under the lock: the group of a stopping run, until it is gone.
    void Poll(const std::shared_ptr<Run>& run) {
        if (TryRemove(run)) return;
        if (Clock::now() >= run->deadline) {
            if (run->escalated) {
                Log(Logger::sDefaultLogger, LogLevel::Warning,
                    "Plugin group %1 still holds processes after SIGKILL; left in place",
                    run->group);
                Forget(run);
                return;
            }
            run->escalated = true;
            run->deadline = Clock::now() + kRemovalTimeout;
            run->groupKilled = run->kind == Cgroup::Kind::kV2 &&
                               Cgroup::WriteText(run->group + "/cgroup.kill", "1") == 0;
        }
        // Without cgroup.kill a group's members are walked until none is left.
        if (run->escalated && !run->groupKilled) SignalMembers(run->group, SIGKILL);
        run->timer->expires_after(kStopPoll);
        run->timer->async_wait([this, run](const boost::system::error_code& error) {
            if (error) return;
            std::lock_guard lock(mutex);
            Poll(run);
        });
    }

    // Removes the run's group once its process is reaped and nothing is left in it.
    bool TryRemove(const std::shared_ptr<Run>& run) {
        if (!run->reaped) return false;
        // A group that still holds processes, or whose last one is still exiting, refuses.
        if (::rmdir(run->group.c_str()) != 0 && errno == EBUSY) return false;
        if (!run->pidsGroup.empty()) ::rmdir(run->pidsGroup.c_str());
        Forget(run);
        return true;
    }

    void Forget(const std::shared_ptr<Run>& run) {
        if (run->out) Finish(*run, *run->out);
        if (run->err) Finish(*run, *run->err);
        if (run->timer) run->timer->cancel();
        activeGroups.erase(run->groupName);
        if (auto found = runs.find(run->pid); found != runs.end() && found->second == run) {
            runs.erase(found);
        }
        if (runs.empty()) idle.notify_all();
    }

    // Removes the empty groups that no launch or run holds: this daemon's finished ones,
    // and those of earlier daemons that are no longer running. A group that still holds
    // processes refuses with EBUSY and stays.
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
    std::condition_variable idle;
    std::unordered_map<int32_t, std::shared_ptr<Run>> runs;
    std::unordered_set<std::string> activeGroups;  // being launched, or of a run
};

}  // namespace

ProcessLauncher& ProcessLauncher::Real() {
    static LinuxProcessLauncher real;
    return real;
}

ProcessLauncher* ProcessLauncher::sInstance = &ProcessLauncher::Real();

}  // namespace Pelinor::System
