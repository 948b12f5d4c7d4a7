#pragma once

#include <string>
#include <vector>

#include <CLI/App.hpp>

namespace krvqt {

/// The command that the arguments name, or a request for help or the version.
struct Request {
    /// Null if none is named.
    const CLI::App* command = nullptr;
    bool help = false;
    bool version = false;
};

/// Checks that the arguments name a command of this command line, or ask for help or the version, and contain only
/// options that it or the command has, each with its value. Throws UsageError, which suggests what may have been meant.
[[nodiscard]] Request checkArguments(const CLI::App& line, const std::vector<std::string>& arguments);

/// Returns all commands, in the order in which help lists them.
[[nodiscard]] std::vector<const CLI::App*> commandsOf(const CLI::App& line);

/// Returns the command with this name. Throws UsageError, which suggests another one.
[[nodiscard]] const CLI::App& commandNamed(const CLI::App& line, const std::string& name);

}  // namespace krvqt
