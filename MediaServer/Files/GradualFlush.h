#pragma once

#include <functional>

namespace krv::server {

/// Writes what a file holds to the disk, a part at a time, and says after each that it moves. A long movie on a slow
/// disk takes minutes for that, and a client must not take them for a standstill.
///
/// onLife is called on this thread and returns whether to go on. Returns 0, also when told not to go on and where the
/// file system cannot write in parts; else the error number of the writing.
[[nodiscard]] int flushGradually(int file, const std::function<bool()>& onLife);

}  // namespace krv::server
