#include "platform/base/exceptions.h"

#include <cstring>

namespace Pelinor {

IOException SystemError(const std::string& what, const std::string& path, int error) {
    return IOException(what + " " + path + ": " + std::strerror(error));
}

}  // namespace Pelinor
