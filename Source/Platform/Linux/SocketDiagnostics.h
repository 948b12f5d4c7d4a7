#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include <sys/socket.h>
#include <sys/types.h>

namespace krv {

/// One TCP connection as the kernel's socket diagnostics name it. Both addresses are of the same family.
struct Connection {
    sockaddr_storage source{};
    sockaddr_storage destination{};
};

/// The request that asks the kernel for the one socket of a connection whose own end is `source`.
[[nodiscard]] std::vector<std::byte> socketDiagnosticsRequest(const Connection& connection);

/// The owner's user id in an answer of the kernel; nothing when the answer is an error or is none.
[[nodiscard]] std::optional<uid_t> ownerInAnswer(std::span<const std::byte> answer);

/// Asks the kernel for the user who owns the connection's own end; nothing when it cannot be told.
[[nodiscard]] std::optional<uid_t> ownerOf(const Connection& connection);

/// An address and port as the kernel knows them; nothing for text that is no IPv4 or IPv6 address.
[[nodiscard]] std::optional<sockaddr_storage> socketAddress(const char* address, int port);

}  // namespace krv
