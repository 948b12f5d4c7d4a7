#pragma once

#include <string>

namespace krv {

/// The directory of the bundle to which the executable at that absolute path belongs (see Bundle::main).
[[nodiscard]] std::string bundleDirectoryOfExecutable(const std::string& executable);

}  // namespace krv
