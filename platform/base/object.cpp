#include "platform/base/object.h"

#include <typeinfo>

namespace Pelinor {

std::string ObjectImpl::ToString() const {
    return typeid(*this).name();
}

}  // namespace Pelinor
