// The scheduler of delayed callbacks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/base/object.h"

namespace Pelinor::System {

class ScheduledItem : public ObjectImpl {
  public:
    // Drops the callback if it has not run yet.
    virtual void Cancel() = 0;
};

using ScheduledCallback = std::function<void(ScheduledItem*)>;

class Scheduler {
  public:
    virtual ~Scheduler() = default;
    // Runs `callback` once, `delayUs` microseconds from now, on the scheduler's own
    // thread; callbacks run one at a time, never overlapping.
    virtual void Schedule(const ScheduledCallback& callback, int64_t delayUs,
                          Ref<ScheduledItem>& item) = 0;

    // The scheduler in use; the real one unless a test installed another.
    static Scheduler* sInstance;
    // One thread with timers. Every delay is divided by $TESSARD_TIME_SCALE (a positive
    // integer, default 1); an invalid value makes the first call throw.
    static Scheduler& Real();
    // A scheduler with a thread of its own, dividing every delay by `timeScale` (>= 1);
    // destroying it runs none of the callbacks still pending (their captures live as long
    // as the caller keeps their item).
    static std::unique_ptr<Scheduler> Create(int64_t timeScale);
};

// The value of $TESSARD_TIME_SCALE: nullptr (unset) gives 1; anything but a positive
// decimal integer throws InvalidArgumentException.
int64_t ParseTimeScale(const char* text);

}  // namespace Pelinor::System
