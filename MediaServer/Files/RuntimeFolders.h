#pragma once

#include <filesystem>

namespace krv::server {

/// The user's folder for what lives as long as the session: $XDG_RUNTIME_DIR, else /run/user/UID, else a folder of our
/// own in /tmp that nobody else can have made. Empty when there is none to be had.
[[nodiscard]] std::filesystem::path runtimeFolder();

/// The server's folder for what must survive it: KRVQuicktimeProcess in $XDG_STATE_HOME, else in ~/.local/state. Made
/// when missing; empty when that fails.
[[nodiscard]] std::filesystem::path stateFolder();

}  // namespace krv::server
