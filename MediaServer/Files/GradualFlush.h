#pragma once

#include <functional>

namespace krv::server {

/// Flushes a file to the disk a part at a time and calls onProgress after each part. On a slow disk, a long movie takes
/// minutes, and the client must see that work advances.
///
/// onProgress is called on this thread and returns whether to continue. Returns 0 on success, if onProgress stopped it,
/// and if the file system cannot flush parts of a file. Otherwise returns the error number.
[[nodiscard]] int flushGradually(int file, const std::function<bool()>& onProgress);

}  // namespace krv::server
