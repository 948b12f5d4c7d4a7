#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace krv {

/// The contents of a regular file of at most `limit` bytes. Nothing for one that is longer, missing, unreadable or of
/// another kind; a pipe that stands in a file's place does not block the caller.
[[nodiscard]] std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit);

}  // namespace krv
