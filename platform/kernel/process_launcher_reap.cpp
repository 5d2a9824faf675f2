// Reaps a run through its pidfd on the event loop, says how it ended, and removes its group
// when it left nothing behind.
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process.h"
#include "platform/kernel/process_launcher.h"

namespace Pelinor::System::Launcher {

namespace {

namespace net = boost::asio;

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

}  // namespace

bool LinuxProcessLauncher::WaitIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex);
    return idle.wait_for(lock, timeout, [this] { return runs.empty(); });
}

// Event loop, under the lock.
void LinuxProcessLauncher::WatchExit(const std::shared_ptr<Run>& run) {
    run->exit->async_wait(net::posix::stream_descriptor::wait_read,
                          [this, run](const boost::system::error_code& error) {
                              if (!error) Reaped(run);
                          });
}

void LinuxProcessLauncher::Reaped(const std::shared_ptr<Run>& run) {
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

}  // namespace Pelinor::System::Launcher
