#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace krvqt {

/// Returns a four-character code as the integer that a record carries, the first character in the highest byte. Pads
/// shorter codes with spaces. Returns nullopt if the text is empty or longer.
[[nodiscard]] std::optional<std::uint32_t> codecCode(std::string_view text);

/// Returns the encoding type with this name ("H.264", in any case) or number, nullopt for any other text.
[[nodiscard]] std::optional<std::int32_t> encodingType(std::string_view nameOrNumber);

/// The codecs that an encoding type stands for, as four-character codes.
struct TypeCodecs {
    std::uint32_t video;  ///< 0: it makes no video
    std::uint32_t audio;
};

/// Returns the codecs of a type, so that settings can refine it. They are 0, the container's default, for "Custom".
/// Returns nullopt for "Original", which copies, and for numbers that are not a type.
[[nodiscard]] std::optional<TypeCodecs> codecsOfType(std::int32_t type);

/// Returns whether the extension of a destination is that of a container for audio only.
[[nodiscard]] bool holdsAudioOnly(std::string_view destination);

/// Returns the default type for a destination: H.264, or by the extension where the container does
/// not hold H.264, or not as well as its own codec.
[[nodiscard]] std::int32_t defaultEncodingType(std::string_view destination);

}  // namespace krvqt
