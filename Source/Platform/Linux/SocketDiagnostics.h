#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <sys/types.h>

namespace krv {

/// One end of a TCP connection. The fields stand in network order, as the kernel keeps them.
struct SocketEnd {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::byte, 16> address{};
    std::uint16_t port = 0;

    /// From an address in numbers, such as "127.0.0.1" or "::1"; nothing for another text or a port outside 1 to 65535.
    [[nodiscard]] static std::optional<SocketEnd> from(const char* address, long port);
    friend bool operator==(const SocketEnd&, const SocketEnd&) = default;
};

/// Whose a socket is, as the kernel tells it.
struct SocketOwner {
    uid_t user = 0;
    /// Whether a process holds the socket. A connection that its server has not accepted yet is held by nobody, and
    /// the kernel gives its user as 0.
    bool held = false;
    friend bool operator==(const SocketOwner&, const SocketOwner&) = default;
};

/// The message that asks the kernel's socket diagnostics for the one TCP socket whose own end is `local` and whose
/// peer is `remote`; with an empty remote, for the socket that listens there.
[[nodiscard]] std::vector<std::byte> socketQuery(const SocketEnd& local, const std::optional<SocketEnd>& remote,
                                                 std::uint32_t sequence);

/// The owner that an answer to the query of that sequence number tells; nothing for an error, for "no such socket" and
/// for bytes of another form.
[[nodiscard]] std::optional<SocketOwner> ownerFromAnswer(std::span<const std::byte> answer, std::uint32_t sequence);

/// Whether the peer of a connection on this machine belongs to this process's user. `local` is this process's end.
/// False when the kernel cannot be asked.
[[nodiscard]] bool peerBelongsToThisUser(const SocketEnd& local, const SocketEnd& peer);

/// Whether a process of this process's user listens on the port and can be reached there over loopback. Asks for the
/// one socket: reading the kernel's whole table costs milliseconds, and this is asked every second.
[[nodiscard]] bool userListensOnPort(std::uint16_t port);

}  // namespace krv
