// The configuration as an operator checks it: which keys the daemon knows, what is wrong
// with their values, and what would be scheduled.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "platform/base/config.h"

namespace Tessard {

constexpr const char* kTextfileDirKey = "metrics/textfileDir";

struct ConfigProblem {
    std::string key;
    std::string where;  // "<file>:<line>"
    std::string text;
};

// Keys the daemon does not read.
std::vector<ConfigProblem> UnknownKeys(const Pelinor::Service::Config& config);
// Unknown keys and every value the daemon would not take as written.
std::vector<ConfigProblem> CheckConfig(const Pelinor::Service::Config& config);

// --check-config: reads the configuration and every plugin description as start-up would,
// prints each problem and what would be scheduled; 0 when clean, 1 otherwise.
int RunConfigCheck(std::ostream& out);

}  // namespace Tessard
