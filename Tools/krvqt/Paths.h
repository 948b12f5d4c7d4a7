#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "ExitStatus.h"
#include "Usage.h"

namespace krvqt {

/// Returns the absolute path of a file, for messages and results. A name that the server cannot take is refused later.
[[nodiscard]] std::string absolutePath(const std::string& file);

/// Print a result on standard output: the path of a file that was written, or an object.
void printPath(const std::string& file);
void printJSON(const nlohmann::json& object);

}  // namespace krvqt
