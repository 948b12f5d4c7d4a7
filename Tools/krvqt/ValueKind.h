#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/App.hpp>

namespace krvqt {

/// The candidates that a shell offers for an argument.
enum class ValueKind : std::uint8_t {
    None,
    File,
    Folder,
    Choice,  ///< one of choicesFor()
};

/// Returns what the value of an option, or an argument of a command that is not an option, stands for.
[[nodiscard]] ValueKind kindOf(const CLI::Option& option);

/// Returns the words that such an argument may be: encoding types, codecs, containers or commands.
[[nodiscard]] std::vector<std::string> choicesFor(const CLI::App& line, const CLI::Option& option);

/// Returns the argument of a command that is not an option: the last one, if there are several. Null if it takes none.
[[nodiscard]] const CLI::Option* positionalOf(const CLI::App& command);

}  // namespace krvqt
