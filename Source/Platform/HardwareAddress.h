#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// What a look-up in the kernel's interface list can end in.
struct HardwareAddressLookup {
    enum class Failure : std::uint8_t {
        None,
        /// The kernel cannot be asked at all.
        NoQuery,
        /// The list of interfaces cannot be read.
        NoList,
        /// The interface is there, but its address cannot be read.
        NoEntry
    };
    /// The address bytes; absent when the interface does not exist, has none, or could not be asked for.
    std::optional<std::vector<std::byte>> address;
    Failure failure = Failure::None;
    /// errno of the call that failed; 0 when none did.
    int code = 0;
};

/// The hardware address of a network interface, such as "en0". Any thread.
[[nodiscard]] KRV_EXPORT HardwareAddressLookup hardwareAddressOfInterface(std::string_view name);

}  // namespace krv
