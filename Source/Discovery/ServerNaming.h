#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns the hardware address of the interface "en0", or nothing if there is none. Prints a failed query to standard
/// error, regardless of the logging settings. Thread-safe.
[[nodiscard]] KRV_EXPORT std::optional<std::vector<std::byte>> machineSpecificNameFor_CopyMACAddressData();

/// Makes the service name of this machine. The server uses it too.
class KRV_EXPORT ServerNaming {
public:
    /// Returns "HEX-base", with the hardware address of "en0" in lower-case hexadecimal, or the unchanged base name if
    /// there is no such address.
    [[nodiscard]] static std::string machineSpecificNameFor(std::string_view base);
};

}  // namespace krv
