#pragma once

#include <string>

namespace krvqt {

struct ServerLaunch {
    bool launched = false;
    /// Why not, or what was launched.
    std::string text;
};

/// Starts the media server from the bundle beside this program, in a session of its own with its standard streams on
/// /dev/null.
[[nodiscard]] ServerLaunch launchServer();

}  // namespace krvqt
