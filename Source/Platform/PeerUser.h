#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns whether the client of an accepted loopback connection runs as our user, according to the kernel (sock_diag).
/// False if the query fails, or if the client has already closed its socket. Thread-safe.
[[nodiscard]] KRV_EXPORT bool clientBelongsToThisUser(int socket);

}  // namespace krv
