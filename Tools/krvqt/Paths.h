#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "ExitStatus.h"

namespace krvqt {

/// Prints what is wrong with the command line. Returns kUsage.
ExitStatus usage(std::string_view text);

/// Returns the absolute path of a file, for messages and results. A name that the server cannot take is refused later.
[[nodiscard]] std::string absolutePath(const std::string& file);

/// Returns kDone if the destination may be written. If it exists and force is not set, prints so and returns kUsage.
[[nodiscard]] ExitStatus checkDestination(const std::string& destination, bool force);

/// Print a result on standard output: the path of a file that was written, or an object.
void printPath(const std::string& file);
void printJSON(const nlohmann::json& object);

}  // namespace krvqt
