#pragma once

#include <cstddef>
#include <span>
#include <string>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns the bytes as lower-case hexadecimal digits, two per byte, without separators. Client and server compare
/// names that contain this text, so both depend on its form.
[[nodiscard]] KRV_EXPORT std::string hexval(std::span<const std::byte> bytes);

}  // namespace krv
