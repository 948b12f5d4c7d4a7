#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace krv {

/// The string under a key of the outermost dictionary of an XML property list. Nothing when the key is missing or has
/// a value of another kind, or when the text up to its end is no well-formed XML.
[[nodiscard]] std::optional<std::string> stringInPropertyList(std::string_view xml, std::string_view key);

}  // namespace krv
