// The platform's exception family.
#pragma once

#include <stdexcept>
#include <string>

namespace Pelinor {

class Throwable : public std::runtime_error {
  public:
    explicit Throwable(const std::string& message) : std::runtime_error(message) {}
};

class Exception : public Throwable {
  public:
    using Throwable::Throwable;
};

class InvalidArgumentException : public Exception {
  public:
    using Exception::Exception;
};

class IOException : public Exception {
  public:
    using Exception::Exception;
};

// An IOException whose text names the operation, the path and the system's reason.
IOException SystemError(const std::string& what, const std::string& path, int error);

}  // namespace Pelinor
