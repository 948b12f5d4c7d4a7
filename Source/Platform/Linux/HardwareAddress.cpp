#include <KRVQTProcessClient/Platform/HardwareAddress.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace krv {

HardwareAddressLookup hardwareAddressOfInterface(std::string_view name) {
    using Failure = HardwareAddressLookup::Failure;
    HardwareAddressLookup lookup;
    const int query = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (query < 0) {
        lookup.failure = Failure::NoQuery;
        lookup.code = errno;
        return lookup;
    }
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        lookup.failure = Failure::NoList;
        lookup.code = errno;
        ::close(query);
        return lookup;
    }
    bool seen = false;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (name != entry->ifa_name) {
            continue;
        }
        seen = true;
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_PACKET) {
            sockaddr_ll link{};
            std::memcpy(&link, entry->ifa_addr, sizeof link);
            const auto* bytes = reinterpret_cast<const std::byte*>(link.sll_addr);
            if (link.sll_halen > 0 && link.sll_halen <= sizeof link.sll_addr) {
                lookup.address.emplace(bytes, bytes + link.sll_halen);
            }
        }
    }
    ::freeifaddrs(list);
    // An interface whose link-level entry the list leaves out is asked by itself.
    if (seen && !lookup.address) {
        ifreq request{};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        if (::ioctl(query, SIOCGIFHWADDR, &request) != 0) {
            lookup.failure = Failure::NoEntry;
            lookup.code = errno;
        }
    }
    ::close(query);
    return lookup;
}

}  // namespace krv
