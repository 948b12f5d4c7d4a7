#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/App.hpp>

namespace krvqt {

/// Returns how to use krvqt, or one of its commands, as text for a terminal of 80 columns.
[[nodiscard]] std::string helpText(const CLI::App& description);

/// Returns the ways to write the arguments of a command that are not options, such as "SOURCE DESTINATION". At least
/// one for a command that takes some.
[[nodiscard]] std::vector<std::string> formsOf(const CLI::App& command);

/// Returns an option with its value, as help shows it: "-o, --output FILE".
[[nodiscard]] std::string syntaxOf(const CLI::Option& option);

/// Breaks a paragraph into lines that are indented and, with that, at most so wide. Each ends with a newline. A newline
/// within the text breaks a line, too.
[[nodiscard]] std::string wrapped(std::string_view paragraph, std::size_t indent, std::size_t width);

/// An exit status and what it means.
struct ExitStatusText {
    int status;
    std::string_view meaning;
};
[[nodiscard]] const std::vector<ExitStatusText>& exitStatuses();

}  // namespace krvqt
