#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gio/gio.h>

#include <KRVQTProcessClient/Platform/MachineProbes.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include "SocketsOfGIO.h"

namespace krv {
namespace {

/// A socket of the internet protocol, closed at the end of its scope.
class Socket {
public:
    explicit Socket(int type)
        : socket_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (socket_ >= 0) {
            ::close(socket_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    [[nodiscard]] int get() const { return socket_; }
    [[nodiscard]] bool bind(in_addr_t address, std::int32_t port) const {
        const sockaddr_in place = at(htonl(address), htons(static_cast<std::uint16_t>(port)));
        return ::bind(socket_, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
    }
    /// Both in network order.
    static sockaddr_in at(in_addr_t address, in_port_t port) {
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_addr.s_addr = address;
        place.sin_port = port;
        return place;
    }

private:
    int socket_;
};

template <typename Option>
bool set(const Socket& socket, int name, const Option& option) {
    return ::setsockopt(socket.get(), IPPROTO_IP, name, &option, sizeof option) == 0;
}

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct Free {
    void operator()(gpointer memory) const { g_free(memory); }
};

}  // namespace

bool loopbackCarriesMulticast() {
    constexpr const char* kGroupOfMulticastDNS = "224.0.0.251";
    constexpr int kPatience = 500;  // ms
    constexpr std::string_view kText = "KRVQTProcessClient";
    const Socket socket(SOCK_DGRAM);
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = ::inet_addr(kGroupOfMulticastDNS);
    membership.imr_ifindex = static_cast<int>(::if_nametoindex("lo"));
    // A port of our own, because a responder may have that of multicast DNS.
    if (membership.imr_ifindex == 0 || !socket.bind(INADDR_ANY, 0) || !set(socket, IP_ADD_MEMBERSHIP, membership) ||
        !set(socket, IP_MULTICAST_IF, membership) || !set(socket, IP_MULTICAST_LOOP, 1)) {
        return false;
    }
    sockaddr_in own{};
    socklen_t size = sizeof own;
    if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&own), &size) != 0) {
        return false;
    }
    const sockaddr_in group = Socket::at(membership.imr_multiaddr.s_addr, own.sin_port);
    if (::sendto(socket.get(), kText.data(), kText.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&group),
                 sizeof group) < 0) {
        return false;
    }
    pollfd waiting{socket.get(), POLLIN, 0};
    return ::poll(&waiting, 1, kPatience) == 1 && (waiting.revents & POLLIN) != 0;
}

bool systemBusResponds() {
    initialiseSocketsOfGIO();
    const SignalsBlocked blocked;  // in the threads that GIO starts
    const std::unique_ptr<gchar, Free> address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!address) {
        return false;
    }
    const std::unique_ptr<GIOStream, Unref> stream(
        g_dbus_address_get_stream_sync(address.get(), nullptr, nullptr, nullptr));
    return stream != nullptr;
}

int freePortsOnLoopback(std::int32_t lowest, std::int32_t highest) {
    int free = 0;
    for (std::int32_t port = lowest; port <= highest; ++port) {
        const Socket socket(SOCK_STREAM);
        free += socket.bind(INADDR_LOOPBACK, port) ? 1 : 0;
    }
    return free;
}

}  // namespace krv
