#pragma once

#include <string>

#include <CLI/App.hpp>

/// Scripts with which shells complete the arguments of krvqt.
namespace krvqt {

/// For bash with bash-completion.
[[nodiscard]] std::string bashCompletion(const CLI::App& line);
[[nodiscard]] std::string zshCompletion(const CLI::App& line);
[[nodiscard]] std::string fishCompletion(const CLI::App& line);

}  // namespace krvqt
