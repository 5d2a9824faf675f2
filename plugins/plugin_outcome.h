// How one plugin run ended, as the launcher reports it to whoever watches the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace Tessard {

enum class PluginEnd {
    Exited,                   // status = exit status
    Signalled,                // status = signal number
    OutOfMemory,              // killed by the kernel inside its memory cap
    StoppedAtNextBatch,       // ended by SIGTERM from its category's next batch (or daemon stop)
    KilledAfterIgnoringTerm,  // still there after the grace period: SIGKILL
    LaunchFailed,             // status = error number (0: the resource pool checks failed)
};

struct PluginRunOutcome {
    std::string name;      // the plugin's name ("disk", "sub/check")
    std::string category;  // "fast" or "slow"
    std::chrono::seconds period{0};
    std::chrono::system_clock::time_point started;
    std::chrono::milliseconds runTime{0};
    PluginEnd end = PluginEnd::Exited;
    int status = 0;
    uint64_t peakMemoryKb = 0;
    uint32_t memoryLimitMb = 0;
};

using PluginOutcomeObserver = std::function<void(const PluginRunOutcome&)>;

}  // namespace Tessard
