#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "DiagnosticsSocket.h"
#include "SocketDiagnostics.h"

namespace krv {
namespace {

/// How long a query waits. The kernel replies within the send call; the limit is for a kernel that does not.
constexpr timeval kPatience{1, 0};

/// Returns the sequence number of a netlink message, or 0 if it is too short to have one.
std::uint32_t sequenceOf(std::span<const std::byte> message) {
    nlmsghdr header{};
    if (message.size() < sizeof header) {
        return 0;
    }
    std::memcpy(&header, message.data(), sizeof header);
    return header.nlmsg_seq;
}

bool isOurs(const std::optional<SocketOwner>& owner) {
    return owner && owner->held && owner->user == ::getuid();
}

}  // namespace

DiagnosticsSocket::DiagnosticsSocket()
    : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
}

DiagnosticsSocket::~DiagnosticsSocket() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

std::optional<SocketOwner> DiagnosticsSocket::ask(const SocketEnd& local, const std::optional<SocketEnd>& remote) {
    const auto query = socketQuery(local, remote, ++sequence_);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket_, query.data(), query.size(), 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) <
        0) {
        return std::nullopt;
    }
    std::array<std::byte, 4096> buffer{};
    for (;;) {
        sockaddr_nl sender{};
        socklen_t size = sizeof sender;
        const ssize_t count =
            ::recvfrom(socket_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&sender), &size);
        if (count < 0 && errno != EINTR) {
            return std::nullopt;
        }
        const auto reply =
            std::span<const std::byte>(buffer).first(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        // Other processes can send to this socket, and an earlier query may have given up before its reply.
        if (count >= 0 && sender.nl_pid == 0 && sequenceOf(reply) == sequence_) {
            return ownerFromReply(reply, local, remote, sequence_);
        }
    }
}

// Both ends of a loopback connection are sockets of this machine, so query the peer's socket with the ends swapped.

bool serverBelongsToThisUser(const SocketEnd& local, const SocketEnd& server) {
    DiagnosticsSocket diagnostics;
    auto owner = diagnostics.ask(server, local);
    if (owner && !owner->held) {
        owner = diagnostics.ask(server, std::nullopt);  // not accepted yet
    }
    return isOurs(owner);
}

bool clientBelongsToThisUser(DiagnosticsSocket& diagnostics, const SocketEnd& local, const SocketEnd& client) {
    return isOurs(diagnostics.ask(client, local));
}

bool userListensOnPort(std::uint16_t port) {
    DiagnosticsSocket diagnostics;
    for (const char* address : {"127.0.0.1", "::1"}) {
        if (const auto end = SocketEnd::from(address, port); end && isOurs(diagnostics.ask(*end, std::nullopt))) {
            return true;
        }
    }
    return false;
}

}  // namespace krv
