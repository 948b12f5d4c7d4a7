#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <sys/types.h>

namespace krv {

/// One end of a TCP connection, in network byte order as the kernel stores it.
struct SocketEnd {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::byte, 16> address{};
    std::uint16_t port = 0;

    /// Parses a numeric address, such as "127.0.0.1" or "::1". Empty for any other text or a port outside 1 to 65535.
    [[nodiscard]] static std::optional<SocketEnd> from(const char* address, long port);
    friend bool operator==(const SocketEnd&, const SocketEnd&) = default;
};

/// The owner of a socket, according to the kernel.
struct SocketOwner {
    uid_t user = 0;
    /// Whether a process has the socket open. No process has a connection that its server has not accepted yet, and the
    /// kernel reports user 0 for it.
    bool held = false;
    friend bool operator==(const SocketOwner&, const SocketOwner&) = default;
};

/// Returns the query to the kernel's socket diagnostics for the TCP socket whose own end is `local` and whose peer is
/// `remote`, or, if remote is empty, for the socket that listens on `local`.
[[nodiscard]] std::vector<std::byte> socketQuery(const SocketEnd& local, const std::optional<SocketEnd>& remote,
                                                 std::uint32_t sequence);

/// Parses the reply to socketQuery(local, remote, sequence). Empty for an error, for "no such socket" and for malformed
/// bytes.
///
/// Also empty if the reply is about another socket. If no connection has these two ends, the kernel answers with a
/// socket that listens on `local`, whose owner says nothing about the connection.
[[nodiscard]] std::optional<SocketOwner> ownerFromReply(std::span<const std::byte> reply, const SocketEnd& local,
                                                        const std::optional<SocketEnd>& remote, std::uint32_t sequence);

/// Returns whether the server to which this process has connected runs as this process's user. `local` is this
/// process's end. The server may not have accepted the connection yet; then the owner of the listening socket counts.
/// False if the query fails.
[[nodiscard]] bool serverBelongsToThisUser(const SocketEnd& local, const SocketEnd& server);

/// Returns whether a process of this process's user listens on the port and can be reached there over loopback. Queries
/// a single socket, because reading the kernel's whole table takes milliseconds, and this is called every second.
[[nodiscard]] bool userListensOnPort(std::uint16_t port);

}  // namespace krv
