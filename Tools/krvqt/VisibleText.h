#pragma once

#include <string>
#include <string_view>

namespace krvqt {

/// Returns a text as a terminal may show it: control characters, which could move the cursor or change the terminal's
/// settings, as "\x1b", and bytes that are not UTF-8 in the same way. Newlines and tabs stay.
[[nodiscard]] std::string visible(std::string_view text);

}  // namespace krvqt
