#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "ExitStatus.h"

namespace krvqt {

/// Prints what is wrong with the command line. Returns kUsage.
ExitStatus usage(std::string_view text);

/// Makes the paths absolute, because the server has another working folder. Returns kDone. If a path cannot be sent to
/// the server, prints why and returns kUsage.
[[nodiscard]] ExitStatus makeAbsolute(std::initializer_list<std::string*> paths);

/// Returns kDone if the destination may be written. If it exists and force is not set, prints so and returns kUsage.
[[nodiscard]] ExitStatus checkDestination(const std::string& destination, bool force);

/// Returns a path with all bytes outside printable ASCII escaped, safe to print on a terminal.
[[nodiscard]] std::string shown(std::string_view path);

}  // namespace krvqt
