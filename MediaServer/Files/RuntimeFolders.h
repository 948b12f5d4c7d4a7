#pragma once

#include <filesystem>

namespace krv::server {

/// Returns the user's folder for files that last as long as the session: $XDG_RUNTIME_DIR, else /run/user/UID, else a
/// folder in /tmp that is created if it is missing. Empty if the folder belongs to another user or others can write to it.
[[nodiscard]] std::filesystem::path runtimeFolder();

}  // namespace krv::server
