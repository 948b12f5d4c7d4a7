#pragma once

#include <cstdint>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The default lowest port of the server's range.
KRV_EXPORT extern const std::int32_t kMinPortNumber;
/// How many request threads a server may start.
KRV_EXPORT extern const long kNumThreadsToStart;

/// The range of loopback ports on which the server may listen, from the user defaults "minimumPortNumber" and
/// "maximumPortNumber". Both are read afresh at every call. Any thread.
class KRV_EXPORT PortNumbering {
public:
    /// The setting, or 8000 when it is unset or below 1025; at most 65535.
    [[nodiscard]] static std::int32_t minimumPortNumber();
    /// The setting, or the minimum plus 1000 when it is unset or below the minimum; at most 65535.
    [[nodiscard]] static std::int32_t maximumPortNumber();
};

}  // namespace krv
