// One answered report request, as the report path tells whoever watches the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Tessard {

struct ReportOutcome {
    std::string name;                     // the report name (the URL's last segment)
    int code = 0;                         // the HTTP status answered
    int64_t size = 0;                     // bytes stored (0 when nothing was stored)
    std::optional<uint32_t> writer = {};  // the client's user, when the kernel could say
    std::chrono::system_clock::time_point at = {};
};

using ReportOutcomeObserver = std::function<void(const ReportOutcome&)>;

// Tells the observer, if there is one, of an answered request, stamped now.
inline void Tell(const ReportOutcomeObserver& observer, ReportOutcome outcome) {
    if (!observer) return;
    outcome.at = std::chrono::system_clock::now();
    observer(outcome);
}

}  // namespace Tessard
