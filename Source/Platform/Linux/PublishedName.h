#pragma once

#include <string>
#include <string_view>

namespace krv {

/// The name a service was published with: "NAME" of "NAME #2", which is how a responder resolves a conflict of names.
[[nodiscard]] std::string publishedName(std::string_view name);

}  // namespace krv
