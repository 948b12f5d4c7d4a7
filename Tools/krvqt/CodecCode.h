#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace krvqt {

/// A four-character code as the integer that a record carries, its first character in the highest byte. Shorter codes
/// are filled up with spaces; nothing for an empty or longer text.
[[nodiscard]] std::optional<std::uint32_t> codecCode(std::string_view text);

/// The encoding type that a name ("H.264", any case) or number stands for; nothing for any other text.
[[nodiscard]] std::optional<std::int32_t> encodingType(std::string_view nameOrNumber);

/// The type for a destination when none is asked for: H.264, or what the container takes instead of it.
[[nodiscard]] std::int32_t defaultEncodingType(std::string_view destination);

}  // namespace krvqt
