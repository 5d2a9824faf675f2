// One answered report request, as the report path tells whoever watches the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace Tessard {

struct ReportOutcome {
    std::string name;  // the report name (the URL's last segment)
    int code = 0;      // the HTTP status answered
    int64_t size = 0;  // bytes stored (0 when nothing was stored)
    std::chrono::system_clock::time_point at;
};

using ReportOutcomeObserver = std::function<void(const ReportOutcome&)>;

// Tells the observer, if there is one, that `name` was answered `code` with `size` bytes stored.
inline void Tell(const ReportOutcomeObserver& observer, const std::string& name, int code,
                 int64_t size) {
    if (observer) observer({name, code, size, std::chrono::system_clock::now()});
}

}  // namespace Tessard
