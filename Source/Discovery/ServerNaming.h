#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The hardware address of the interface "en0", or nothing when the machine has none. Failures to ask the system are
/// told on standard error, whatever the logging settings are. Any thread.
[[nodiscard]] KRV_EXPORT std::optional<std::vector<std::byte>> machineSpecificNameFor_CopyMACAddressData();

/// Makes a service name that is this machine's own. The server publishes under the same rule.
class KRV_EXPORT ServerNaming {
public:
    /// "HEX-base" with the hardware address of "en0" in lower-case hexadecimal, or the base name unchanged when there
    /// is no such address.
    [[nodiscard]] static std::string machineSpecificNameFor(std::string_view base);
};

}  // namespace krv
