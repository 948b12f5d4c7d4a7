#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <MediaServer/Front/ListeningSockets.h>

namespace krv::server {
namespace {

enum class Outcome { Open, InUse, NoSuchAddress };

Outcome listenOn(const sockaddr* address, socklen_t size, Descriptor& socket) {
    socket.reset(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        return Outcome::NoSuchAddress;
    }
    const int on = 1;
    // Lingering connections of a server that has just exited must not keep the next one from its port.
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address->sa_family == AF_INET6) {
        ::setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (::bind(socket.get(), address, size) != 0) {
        const bool absent = errno == EADDRNOTAVAIL || errno == EAFNOSUPPORT;
        socket.reset();
        return absent ? Outcome::NoSuchAddress : Outcome::InUse;
    }
    return ::listen(socket.get(), SOMAXCONN) == 0 ? Outcome::Open : Outcome::InUse;
}

}  // namespace

std::optional<ListeningSockets> ListeningSockets::open(std::int32_t minimum, std::int32_t maximum) {
    for (std::int32_t port = minimum; port <= maximum; ++port) {
        ListeningSockets sockets;
        sockets.port = static_cast<std::uint16_t>(port);
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(sockets.port);
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (listenOn(reinterpret_cast<const sockaddr*>(&v4), sizeof v4, sockets.ipv4) != Outcome::Open) {
            continue;
        }
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(sockets.port);
        v6.sin6_addr = in6addr_loopback;
        if (listenOn(reinterpret_cast<const sockaddr*>(&v6), sizeof v6, sockets.ipv6) == Outcome::InUse) {
            continue;
        }
        return sockets;
    }
    return std::nullopt;
}

}  // namespace krv::server
