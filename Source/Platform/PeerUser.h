#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns whether the peer of a connected loopback socket runs as our user, according to the kernel (sock_diag). False
/// if the query fails. Thread-safe.
[[nodiscard]] KRV_EXPORT bool peerBelongsToThisUser(int socket);

}  // namespace krv
