#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace krv {

/// Returns the string under a key of the outermost dictionary of an XML property list. Empty if the key is missing, if
/// its value is not a string, or if the text is not well-formed XML.
[[nodiscard]] std::optional<std::string> stringInPropertyList(std::string_view xml, std::string_view key);

}  // namespace krv
