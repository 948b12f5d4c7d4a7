#include <array>
#include <cerrno>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "SocketDiagnostics.h"

namespace krv {
namespace {

/// A netlink socket to the kernel's socket diagnostics.
class DiagnosticsSocket {
public:
    DiagnosticsSocket()
        : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
        // The kernel replies within the send call. The limit is for a kernel that does not.
        const timeval limit{1, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~DiagnosticsSocket() {
        if (socket_ >= 0) {
            ::close(socket_);
        }
    }
    DiagnosticsSocket(const DiagnosticsSocket&) = delete;
    DiagnosticsSocket& operator=(const DiagnosticsSocket&) = delete;

    std::optional<SocketOwner> ask(const SocketEnd& local, const std::optional<SocketEnd>& remote) {
        const auto query = socketQuery(local, remote, ++sequence_);
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        if (::sendto(socket_, query.data(), query.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                     sizeof kernel) < 0) {
            return std::nullopt;
        }
        std::array<std::byte, 4096> reply{};
        ssize_t count = 0;
        sockaddr_nl sender{};
        do {
            socklen_t size = sizeof sender;
            count = ::recvfrom(socket_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&sender), &size);
        } while ((count < 0 && errno == EINTR) || (count >= 0 && sender.nl_pid != 0));
        return count < 0
                   ? std::nullopt
                   : ownerFromReply(std::span(reply).first(static_cast<std::size_t>(count)), local, remote, sequence_);
    }

private:
    const int socket_;
    std::uint32_t sequence_ = 0;
};

bool isOurs(const std::optional<SocketOwner>& owner) {
    return owner && owner->held && owner->user == ::getuid();
}

}  // namespace

// Both ends of a loopback connection are sockets of this machine, so query the peer's socket with the ends swapped.

bool serverBelongsToThisUser(const SocketEnd& local, const SocketEnd& server) {
    DiagnosticsSocket diagnostics;
    auto owner = diagnostics.ask(server, local);
    if (owner && !owner->held) {
        owner = diagnostics.ask(server, std::nullopt);  // not accepted yet
    }
    return isOurs(owner);
}

bool clientBelongsToThisUser(const SocketEnd& local, const SocketEnd& client) {
    return isOurs(DiagnosticsSocket().ask(client, local));
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
