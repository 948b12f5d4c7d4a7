#pragma once

#include <string>
#include <vector>

namespace krvqt {

/// The arguments without the user defaults among them ("-key value", for the keys that the library knows), which the
/// library reads by itself. Nothing behind "--" is touched.
[[nodiscard]] std::vector<std::string> withoutUserDefaults(std::vector<std::string> arguments);

}  // namespace krvqt
