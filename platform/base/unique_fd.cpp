#include "platform/base/unique_fd.h"

#include <unistd.h>

namespace Pelinor::System {

void UniqueFd::Reset() noexcept {
    if (fd >= 0) ::close(std::exchange(fd, -1));
}

}  // namespace Pelinor::System
