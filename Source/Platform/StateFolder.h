#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns this user's folder of that name for files that must survive a restart, and creates it if it is missing:
/// below $XDG_STATE_HOME, else below ~/.local/state. Empty if neither is known or the folder cannot be created.
/// Thread-safe.
[[nodiscard]] KRV_EXPORT std::string stateFolder(std::string_view name);

}  // namespace krv
