#pragma once

#include <string>
#include <vector>

namespace krvqt {

/// Returns the arguments without user defaults ("-key value", for the keys that the library knows), which the library
/// reads itself. Keeps everything after "--".
[[nodiscard]] std::vector<std::string> withoutUserDefaults(std::vector<std::string> arguments);

}  // namespace krvqt
