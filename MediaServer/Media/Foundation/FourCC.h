#pragma once

#include <cstdint>
#include <string>

namespace krv::media {

/// Returns a four-character code as the integer that requests carry: the first character in the highest byte.
[[nodiscard]] constexpr std::uint32_t fourCC(const char (&text)[5]) noexcept {
    std::uint32_t code = 0;
    for (int i = 0; i < 4; ++i) {
        code = code << 8 | static_cast<unsigned char>(text[i]);
    }
    return code;
}

/// Returns the code as text, or in hexadecimal if it is not printable.
[[nodiscard]] std::string fourCCText(std::uint32_t code);

}  // namespace krv::media
