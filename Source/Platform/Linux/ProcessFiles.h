#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Reading what the kernel tells of a process in /proc. Pure functions of the files' contents.
namespace krv {

/// From /proc/PID/stat.
struct ProcessStat {
    /// The kernel's name for the process: at most 15 bytes of whatever its owner chose, parentheses and spaces too.
    std::string name;
    char state = '?';
    std::uint64_t startTime = 0;
};

/// Nothing when the text is no such line. The name ends at the last parenthesis of the line, because it may hold
/// some itself.
[[nodiscard]] std::optional<ProcessStat> parseProcessStat(std::string_view text);

/// Whether a process in this state has ended already.
[[nodiscard]] bool isDeadState(char state) noexcept;

/// Returns the path without the " (deleted)" that the kernel appends to that of a file which was replaced or removed.
[[nodiscard]] std::string_view withoutDeletedMark(std::string_view path) noexcept;

/// Returns the file name of an executable's path as the kernel gives it, without the mark of a deleted file.
[[nodiscard]] std::string executableName(std::string_view path);

}  // namespace krv
