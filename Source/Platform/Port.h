#pragma once

#include <cstdint>

namespace krv {

/// The highest TCP port number.
inline constexpr std::int32_t kHighestPort = 65535;

}  // namespace krv
