#pragma once

#include <string>

/// Internal to the library.
namespace krv {

/// Returns whether a living process has written itself into the lock file of the folder: a server, which may not serve
/// yet, or any more. Does not touch the lock. Thread-safe.
[[nodiscard]] bool isServerLockHeld(const std::string& folder);

}  // namespace krv
