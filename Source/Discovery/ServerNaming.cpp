#include <cstdio>

#include <fmt/format.h>

#include <KRVQTProcessClient/Discovery/Hexval.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>
#include <KRVQTProcessClient/Platform/HardwareAddress.h>

namespace krv {
namespace {

constexpr std::string_view kPrimaryInterface = "en0";

}  // namespace

std::optional<std::vector<std::byte>> machineSpecificNameFor_CopyMACAddressData() {
    const HardwareAddressLookup lookup = hardwareAddressOfInterface(kPrimaryInterface);
    switch (lookup.failure) {
    case HardwareAddressLookup::Failure::NoFailure:
        break;
    case HardwareAddressLookup::Failure::NoQuery:
        std::fputs("IOBSDNameMatching() returned empty dictionary\n", stderr);
        break;
    case HardwareAddressLookup::Failure::NoList:
        std::fprintf(stderr, "IOServiceGetMatchingServices() returned %d\n", lookup.code);
        break;
    case HardwareAddressLookup::Failure::NoEntry:
        std::fprintf(stderr, "IORegistryGetParentEntry returned %d\n", lookup.code);
        break;
    }
    return lookup.address;
}

std::string ServerNaming::machineSpecificNameFor(std::string_view base) {
    const auto address = machineSpecificNameFor_CopyMACAddressData();
    return address ? fmt::format("{}-{}", hexval(*address), base) : std::string(base);
}

}  // namespace krv
