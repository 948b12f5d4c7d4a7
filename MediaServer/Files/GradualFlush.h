#pragma once

#include <functional>

namespace krv::server {

/// Flushes a file to the disk a part at a time and calls onProgress after each part. On a slow disk, a long movie takes
/// minutes, and the client must see that work advances.
///
/// onProgress is called on this thread and returns whether to continue. Returns 0 on success, if onProgress stopped it,
/// and if the file system cannot flush parts of a file. Otherwise returns the error number.
[[nodiscard]] int flushGradually(int file, const std::function<bool()>& onProgress);

/// Flushes everything on the file system of an open file to the disk. For many files, this is much faster than to flush
/// each, but it may take long, because it includes what other programs have written.
///
/// onProgress is called on this thread some times per second and returns whether to continue. If it does not, this
/// returns at once, and the file system flushes on. Returns 0 on success and if onProgress stopped it, otherwise the
/// error number.
[[nodiscard]] int flushFileSystem(int file, const std::function<bool()>& onProgress);

/// The same for the names in an open folder. Returns 0 if the user may not read the folder.
[[nodiscard]] int flushNames(int folder, const std::function<bool()>& onProgress);

}  // namespace krv::server
