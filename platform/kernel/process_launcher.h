// The Linux process launcher, whose methods are defined across the process_launcher_*.cpp
// files by concern: the launch, the child's steps before execve, reaping, the output pipes,
// and stopping groups. Internal to platform/.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/base/logging.h"
#include "platform/kernel/cgroup_paths.h"
#include "platform/kernel/process.h"

namespace Pelinor::System::Launcher {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kGroupPrefix = "run-";
constexpr size_t kReadChunk = 4096;

// One pipe carrying a plugin's stdout or stderr into the log, a line at a time.
struct OutputStream {
    OutputStream(boost::asio::io_context& loop, int fd, Service::LogLevel level)
        : pipe(loop, fd), level(level) {}
    boost::asio::posix::stream_descriptor pipe;
    Service::LogLevel level;
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
    std::unique_ptr<boost::asio::posix::stream_descriptor> exit;  // the pidfd, readable at exit
    std::unique_ptr<OutputStream> out;
    std::unique_ptr<OutputStream> err;
    size_t logged = 0;  // output bytes that reached the log
    bool truncated = false;
    bool reaped = false;
    bool stopping = false;
    bool escalated = false;      // SIGKILL sent
    bool groupKilled = false;    // by cgroup.kill (v2, Linux 5.14 on), which needs no walk
    Clock::time_point deadline;  // of the grace, then of the removal
    std::unique_ptr<boost::asio::steady_timer> timer;
};

class LinuxProcessLauncher : public ProcessLauncher {
  public:
    int Launch(const char* path, char* const argv[], const RunOptions& options,
               int32_t& pid) override;
    int Signal(int32_t pid, int signal) override;
    int Stop(int32_t pid, std::chrono::milliseconds grace) override;
    bool WaitIdle(std::chrono::milliseconds timeout) override;

  private:
    // process_launcher_launch.cpp
    int CreateGroup(const std::string& pool, std::string& name);
    static int SetLimits(const std::string& group, Cgroup::Kind kind, uint64_t megabytes,
                         uint32_t pidsMax);
    static int Start(const char* path, char* const argv[], Run& run);

    // process_launcher_reap.cpp
    void WatchExit(const std::shared_ptr<Run>& run);
    void Reaped(const std::shared_ptr<Run>& run);

    // process_launcher_output.cpp
    void ReadOutput(const std::shared_ptr<Run>& run, OutputStream& stream);
    void Drain(Run& run, OutputStream& stream);
    void Take(Run& run, OutputStream& stream, std::string_view data);
    void Finish(Run& run, OutputStream& stream);
    void Emit(Run& run, OutputStream& stream);
    void MarkTruncated(Run& run);

    // process_launcher_stop.cpp
    void BeginStop(const std::shared_ptr<Run>& run, std::chrono::milliseconds grace);
    void Poll(const std::shared_ptr<Run>& run);
    bool TryRemove(const std::shared_ptr<Run>& run);
    void Forget(const std::shared_ptr<Run>& run);
    void Sweep(const std::string& pool);

    std::atomic<uint64_t> counter{0};
    std::mutex mutex;
    std::condition_variable idle;
    std::unordered_map<int32_t, std::shared_ptr<Run>> runs;
    std::unordered_set<std::string> activeGroups;  // being launched, or of a run
};

}  // namespace Pelinor::System::Launcher
