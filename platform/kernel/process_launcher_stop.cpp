// Stopping a run's whole group (SIGTERM, SIGKILL after the grace, then its removal), and
// sweeping the empty groups that no run holds any more.
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process_launcher.h"
#include "platform/threads/scheduler_loop.h"

namespace Pelinor::System::Launcher {

namespace {

namespace net = boost::asio;
using namespace std::chrono_literals;
using Service::Log;
using Service::Logger;
using Service::LogLevel;

// How often a stopping group is looked at, and how long after SIGKILL its removal is tried.
constexpr auto kStopPoll = 20ms;
constexpr auto kRemovalTimeout = 5s;

// The group names are "run-<daemon pid>-<counter>"; the daemon pid is 0 for other names.
pid_t OwnerOf(std::string_view name) {
    if (name.substr(0, kGroupPrefix.size()) != kGroupPrefix) return 0;
    name.remove_prefix(kGroupPrefix.size());
    pid_t owner = 0;
    auto [stop, error] = std::from_chars(name.data(), name.data() + name.size(), owner);
    return error == std::errc() && stop != name.data() + name.size() && *stop == '-' ? owner : 0;
}

// A direct system call: glibc 2.36's <sys/pidfd.h> declares its wrapper without C linkage.
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

}  // namespace

int LinuxProcessLauncher::Signal(int32_t pid, int signal) {
    std::lock_guard lock(mutex);
    auto found = runs.find(pid);
    if (found == runs.end() || found->second->reaped) return ESRCH;
    return PidfdSendSignal(found->second->exit->native_handle(), signal) == 0 ? 0 : errno;
}

int LinuxProcessLauncher::Stop(int32_t pid, std::chrono::milliseconds grace) {
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

// Under the lock, from any thread.
void LinuxProcessLauncher::BeginStop(const std::shared_ptr<Run>& run,
                                     std::chrono::milliseconds grace) {
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
void LinuxProcessLauncher::Poll(const std::shared_ptr<Run>& run) {
    if (TryRemove(run)) return;
    if (Clock::now() >= run->deadline) {
        if (run->escalated) {
            Log(Logger::sDefaultLogger, LogLevel::Warning,
                "Plugin group %1 still holds processes after SIGKILL; left in place", run->group);
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
bool LinuxProcessLauncher::TryRemove(const std::shared_ptr<Run>& run) {
    if (!run->reaped) return false;
    // A group that still holds processes, or whose last one is still exiting, refuses.
    if (::rmdir(run->group.c_str()) != 0 && errno == EBUSY) return false;
    if (!run->pidsGroup.empty()) ::rmdir(run->pidsGroup.c_str());
    Forget(run);
    return true;
}

void LinuxProcessLauncher::Forget(const std::shared_ptr<Run>& run) {
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
void LinuxProcessLauncher::Sweep(const std::string& pool) {
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

}  // namespace Pelinor::System::Launcher
