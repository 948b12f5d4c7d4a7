#pragma once

#include <cstdint>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The default lowest port of the server's range.
KRV_EXPORT extern const std::int32_t kMinPortNumber;
/// The number of request threads that a server may start.
KRV_EXPORT extern const long kNumThreadsToStart;

/// The range of loopback ports on which the server may listen, from the user defaults "minimumPortNumber" and
/// "maximumPortNumber". Both are read at every call. Thread-safe.
class KRV_EXPORT PortNumbering {
public:
    /// Returns the setting, or 8000 if it is unset or below 1025; at most 65535.
    [[nodiscard]] static std::int32_t minimumPortNumber();
    /// Returns the setting, or the minimum plus 1000 if it is unset or below the minimum; at most 65535.
    [[nodiscard]] static std::int32_t maximumPortNumber();
};

}  // namespace krv
