// The named exclusive lock and the platform's fatal stop.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/base/format.h"

namespace Pelinor {

// A mutex with a name and a rank. Locks must be taken in rising rank order on a
// thread; a violation (a recursive acquire included) is a programming error and panics.
class ExclLock {
  public:
    // Returns nullptr when the lock cannot be made.
    static std::unique_ptr<ExclLock> Create(std::string name, uint32_t rank);

    void lock();
    void unlock();
    const std::string& GetName() const { return name; }

    ExclLock(std::string name, uint32_t rank) : name(std::move(name)), rank(rank) {}

  private:
    const std::string name;
    const uint32_t rank;
    uint32_t outerRank = 0;
    std::mutex mutex;
};

// Writes the message to standard error and aborts.
[[noreturn]] void PanicMessage(const std::string& message);

template <typename... Args>
[[noreturn]] void Panic(std::string_view format, const Args&... args) {
    PanicMessage(Format(format, args...));
}

}  // namespace Pelinor
