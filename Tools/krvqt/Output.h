#pragma once

#include <string_view>
#include <utility>

#include <fmt/format.h>

/// Standard output, for results, and standard error, for everything else. Nothing here throws or exits because a stream
/// cannot be written: no work is lost for a closed pipe or a full disk. Thread-safe.
namespace krvqt {

/// Makes every use of a closed standard stream fail, instead of using a file that was opened since. Makes a pipe
/// without a reader an error instead of a signal. Call before any file is opened.
void prepareOutput();

/// Writes a message to standard error, as visible() shows it if that is a terminal. A message that cannot be written is
/// lost.
void say(std::string_view message);
template <typename... Values>
void say(fmt::format_string<Values...> format, Values&&... values) {
    say(std::string_view(fmt::format(format, std::forward<Values>(values)...)));
}

/// Writes to standard error what contains control sequences for a terminal.
void sayToTerminal(std::string_view sequences);

/// Writes a part of the results to standard output at once, as visible() shows it if that is a terminal. Newlines are
/// the caller's.
void printOut(std::string_view results);
template <typename... Values>
void printOut(fmt::format_string<Values...> format, Values&&... values) {
    printOut(std::string_view(fmt::format(format, std::forward<Values>(values)...)));
}

/// Returns the error number of the first part of the results that could not be written, 0 if there is none.
[[nodiscard]] int outputFailure();

}  // namespace krvqt
