#pragma once

#include <cstdint>
#include <string_view>

#include <sys/types.h>

namespace krv {

/// Whether a table in the form of /proc/net/tcp or tcp6 has a socket that listens on the port and belongs to the user.
/// Lines of another form are passed over.
[[nodiscard]] bool tableHasListener(std::string_view table, std::uint16_t port, uid_t user);

/// Whether a process of this process's user listens on the port, on any address of this network namespace.
[[nodiscard]] bool userListensOnPort(std::uint16_t port);

}  // namespace krv
