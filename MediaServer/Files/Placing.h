#pragma once

#include <functional>

namespace krv::server {

/// The calls that put outputs in place. They run on their own thread.
struct Placing {
    /// Called at least once per file, also while files are taken back. Returns whether to continue.
    std::function<bool()> onProgress;
    /// Called once when everything is in place and nothing has been decided yet. Returns whether the outputs are to be
    /// kept. After that, they are, unless the file system fails.
    std::function<bool()> decide;
};

}  // namespace krv::server
