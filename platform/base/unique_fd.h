// Sole owner of a file descriptor.
#pragma once

#include <utility>

namespace Pelinor::System {

class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) noexcept : fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd = std::exchange(other.fd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return fd; }
    explicit operator bool() const noexcept { return fd >= 0; }
    int Release() noexcept { return std::exchange(fd, -1); }
    void Reset() noexcept;

  private:
    int fd;
};

}  // namespace Pelinor::System
