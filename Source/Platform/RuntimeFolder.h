#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns the user's folder for files that last as long as the session: $XDG_RUNTIME_DIR, else /run/user/UID, else a
/// folder in /tmp with that name and UID, else "runtime" in the user's state folder of that name. The last two are
/// created if they are missing. A folder that belongs to another user, or that others can write to, is passed over.
/// Empty if there is no other. Every process of the user with the same environment gets the same one. Thread-safe.
[[nodiscard]] KRV_EXPORT std::string runtimeFolder(std::string_view name);

}  // namespace krv
