#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Parsing of the kernel's files about a process in /proc. Pure functions of the files' contents.
namespace krv {

/// From /proc/PID/stat.
struct ProcessStat {
    /// The kernel's name of the process: at most 15 bytes, chosen by its owner, possibly with parentheses and spaces.
    std::string name;
    char state = '?';
    std::uint64_t startTime = 0;
};

/// Parses the line of /proc/PID/stat; empty if it is malformed. The name ends at the last parenthesis of the line,
/// because it may contain parentheses.
[[nodiscard]] std::optional<ProcessStat> parseProcessStat(std::string_view text);

/// Returns whether a process in this state has exited.
[[nodiscard]] bool isDeadState(char state) noexcept;

/// Returns the path without the " (deleted)" that the kernel appends if the file was replaced or removed.
[[nodiscard]] std::string_view withoutDeletedMark(std::string_view path) noexcept;

/// Returns the file name of an executable's path as the kernel gives it, without the mark of a deleted file.
[[nodiscard]] std::string executableName(std::string_view path);

}  // namespace krv
