#pragma once

#include <string>

namespace krv {

/// Returns the directory of the bundle that contains the executable at that absolute path (see Bundle::main).
[[nodiscard]] std::string bundleDirectoryOfExecutable(const std::string& executable);

}  // namespace krv
