#pragma once

#include <cstddef>
#include <span>
#include <string>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The bytes as lower-case hexadecimal digits, two for each, without separators. Client and server compare names
/// made with it, so the text is part of what they agree on.
[[nodiscard]] KRV_EXPORT std::string hexval(std::span<const std::byte> bytes);

}  // namespace krv
