// What the launcher has scheduled and when it starts each plugin, for whoever watches the
// daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "plugins/plugin_outcome.h"

namespace Tessard {

struct PluginPlan {
    std::string name;
    std::string category;  // "fast" or "slow"
    std::chrono::seconds period{0};
    std::chrono::seconds firstRun{0};  // after scheduling
    uint32_t memoryLimitMb = 0;
};

// Who hears what the launcher does. Set before Init, never changed afterwards.
struct PluginObserver {
    // The whole schedule, after start-up and after every reload; on the scheduler's thread.
    std::function<void(const std::vector<PluginPlan>&)> scheduled{};
    // A batch is about to launch the plugin; on the scheduler's thread.
    std::function<void(const std::string& name, std::chrono::system_clock::time_point at)>
        started{};
    // How a run ended, launch failures included: one call per run, on the event loop.
    PluginOutcomeObserver ended{};
};

// The resource pool as the kernel's system information shows it.
struct PoolFigures {
    bool found = false;
    std::string problem;  // why not, when not found
    uint32_t childGroups = 0;
    uint64_t peakKb = 0;
    uint64_t childrenPeakKb = 0;
    bool operator==(const PoolFigures&) const = default;
};
PoolFigures ReadPoolFigures();

}  // namespace Tessard
