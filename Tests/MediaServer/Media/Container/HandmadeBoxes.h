#pragma once

#include <cstdint>
#include <string>

namespace krv::media::test {

/// Returns a big-endian number of this many bytes.
inline std::string number(std::uint64_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        text += shift < 64 ? static_cast<char>(value >> shift & 0xff) : '\0';
    }
    return text;
}

/// Returns a box of a movie file.
inline std::string box(const std::string& type, const std::string& contents) {
    return number(contents.size() + 8, 4) + type + contents;
}

}  // namespace krv::media::test
