#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace krv {

/// Returns the contents of a regular file of at most `limit` bytes. Empty if it is longer, missing, unreadable or not a
/// regular file. Does not block on a pipe in place of a file.
[[nodiscard]] std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit);

}  // namespace krv
