#pragma once

#include <string>

#include <CLI/App.hpp>

namespace krvqt {

/// Returns the manual page krvqt(1) in the man macros.
[[nodiscard]] std::string manPage(const CLI::App& line);

}  // namespace krvqt
