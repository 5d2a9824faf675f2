#include "platform/base/lock.h"

#include <unistd.h>

#include <cstdlib>
#include <new>

namespace Pelinor {

namespace {
// Rank of the innermost exclusive lock this thread holds; 0 when none.
thread_local uint32_t heldRank = 0;
}  // namespace

std::unique_ptr<ExclLock> ExclLock::Create(std::string name, uint32_t rank) {
    try {
        return std::make_unique<ExclLock>(std::move(name), rank);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void ExclLock::lock() {
    if (heldRank >= rank) {
        Panic("Lock %1 (rank %2) taken while holding a lock of rank %3", name, rank, heldRank);
    }
    mutex.lock();
    outerRank = heldRank;
    heldRank = rank;
}

void ExclLock::unlock() {
    heldRank = outerRank;
    mutex.unlock();
}

void PanicMessage(const std::string& message) {
    std::string line = "PANIC: " + message + "\n";
    [[maybe_unused]] auto ignored = ::write(STDERR_FILENO, line.data(), line.size());
    std::abort();
}

}  // namespace Pelinor
