#pragma once

#include <optional>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The user who owns the other end of a connected loopback socket, as the kernel's socket diagnostics tell; nothing when
/// it cannot be told. Any thread.
[[nodiscard]] KRV_EXPORT std::optional<uid_t> peerUser(int socket);

}  // namespace krv
