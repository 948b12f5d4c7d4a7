#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace krv {

/// Returns the settings among a program's arguments, which exclude the program's name (see UserDefaults).
[[nodiscard]] std::map<std::string, std::string, std::less<>>
settingsFromArguments(std::span<const std::string> arguments);

/// Returns the integer value of a setting's text (see UserDefaults::integerForKey).
[[nodiscard]] std::int64_t integerFromSetting(std::string_view text) noexcept;

}  // namespace krv
