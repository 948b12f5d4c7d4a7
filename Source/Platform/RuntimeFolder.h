#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns the user's folder for files that last as long as the session: $XDG_RUNTIME_DIR, else /run/user/UID, else a
/// folder of that name in /tmp, which is created if it is missing. Empty if that one belongs to another user or others
/// can write to it. Thread-safe.
[[nodiscard]] KRV_EXPORT std::string runtimeFolder(std::string_view name);

}  // namespace krv
