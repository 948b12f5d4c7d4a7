#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace krv {

/// The settings among a program's arguments, its name not included (see UserDefaults).
[[nodiscard]] std::map<std::string, std::string, std::less<>>
settingsFromArguments(std::span<const std::string> arguments);

/// The integer that a setting's text stands for (see UserDefaults::integerForKey).
[[nodiscard]] std::int64_t integerFromSetting(std::string_view text) noexcept;

}  // namespace krv
