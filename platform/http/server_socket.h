// The real listening socket behind SystemFactory::CreateServerSocket.
#pragma once

#include "platform/http/http.h"

namespace Pelinor::System {

Ref<ServerSocket> MakePosixServerSocket();

}  // namespace Pelinor::System
