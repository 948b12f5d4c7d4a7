#pragma once

#include <string>
#include <string_view>

namespace krv {

/// Returns the name with which a service was published: "NAME" for "NAME #2", to which a responder renames a service
/// whose name is taken.
[[nodiscard]] std::string publishedName(std::string_view name);

}  // namespace krv
