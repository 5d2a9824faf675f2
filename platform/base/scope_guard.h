// Runs an action on every way out of a scope, exceptions included.
#pragma once

#include <functional>
#include <utility>

namespace Pelinor {

class ScopeGuard {
  public:
    explicit ScopeGuard(std::function<void()> action) : action(std::move(action)) {}
    ~ScopeGuard() {
        if (action) action();
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

  private:
    std::function<void()> action;
};

}  // namespace Pelinor
