#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <KRVQTProcessClient/Platform/HardwareAddress.h>

namespace krv {
namespace {

std::optional<std::vector<std::byte>> addressOf(const sockaddr* address) {
    sockaddr_ll link{};
    std::memcpy(&link, address, sizeof link);
    const auto bytes = std::as_bytes(std::span(link.sll_addr)).first(std::min<std::size_t>(link.sll_halen, 8));
    const bool none = std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == std::byte{0}; });
    return none ? std::nullopt : std::optional<std::vector<std::byte>>(std::in_place, bytes.begin(), bytes.end());
}

}  // namespace

HardwareAddressLookup hardwareAddressOfInterface(std::string_view name) {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        const bool noQuery = errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT;
        return {{}, noQuery ? HardwareAddressLookup::Failure::NoQuery : HardwareAddressLookup::Failure::NoList, errno};
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, ::freeifaddrs);
    bool exists = false;
    for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
        if (name != entry->ifa_name) {
            continue;
        }
        exists = true;
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_PACKET) {
            return {addressOf(entry->ifa_addr), HardwareAddressLookup::Failure::NoFailure, 0};
        }
    }
    // Every interface has a link-level entry, so one that is listed without it was removed during the call.
    return exists ? HardwareAddressLookup{{}, HardwareAddressLookup::Failure::NoEntry, ENODEV}
                  : HardwareAddressLookup{};
}

}  // namespace krv
