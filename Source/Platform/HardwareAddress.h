#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// What a look-up in the kernel's interface list can end in.
struct HardwareAddressLookup {
    /// The address bytes; absent when the interface does not exist, has none, or the list cannot be read.
    std::optional<std::vector<std::byte>> address;
    /// errno of the call that failed to list the interfaces; 0 when the list could be read.
    int listError = 0;
};

/// The hardware address of a network interface, such as "en0". Any thread.
[[nodiscard]] HardwareAddressLookup hardwareAddressOfInterface(std::string_view name);

} // namespace krv
