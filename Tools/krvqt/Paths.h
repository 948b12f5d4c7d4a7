#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "ExitStatus.h"

namespace krvqt {

/// Says what is wrong with how the command was used. kUsage.
ExitStatus usage(std::string_view text);

/// Makes the paths absolute: the server has another working folder. kDone, or kUsage when one of them cannot travel to
/// the server, which has been said then.
[[nodiscard]] ExitStatus makeAbsolute(std::initializer_list<std::string*> paths);

/// kUsage when the destination exists and may not be replaced, which has been said then.
[[nodiscard]] ExitStatus checkDestination(const std::string& destination, bool force);

/// A path that may hold anything, as it can be shown on a terminal.
[[nodiscard]] std::string shown(std::string_view path);

}  // namespace krvqt
