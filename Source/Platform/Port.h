#pragma once

#include <cstdint>

namespace krv {

/// The highest number that a TCP port can have.
inline constexpr std::int32_t kHighestPort = 65535;

}  // namespace krv
