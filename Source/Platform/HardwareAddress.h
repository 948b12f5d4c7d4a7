#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The result of a look-up in the kernel's list of interfaces.
struct HardwareAddressLookup {
    enum class Failure : std::uint8_t {
        NoFailure,
        /// The query cannot be made at all.
        NoQuery,
        /// The list of interfaces cannot be read.
        NoList,
        /// The interface exists, but its address cannot be read.
        NoEntry
    };
    /// The address bytes; absent if the interface does not exist or has no address, or if the query failed.
    std::optional<std::vector<std::byte>> address;
    Failure failure = Failure::NoFailure;
    /// errno of the call that failed, else 0.
    int code = 0;
};

/// Looks up the hardware address of a network interface, such as "en0". Thread-safe.
[[nodiscard]] KRV_EXPORT HardwareAddressLookup hardwareAddressOfInterface(std::string_view name);

}  // namespace krv
