#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Whether the other end of a connected loopback socket is held by a process of this process's user, as the kernel's
/// socket diagnostics tell. False when the kernel cannot be asked. Any thread.
[[nodiscard]] KRV_EXPORT bool peerBelongsToThisUser(int socket);

}  // namespace krv
