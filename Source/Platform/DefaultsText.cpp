#include <algorithm>
#include <charconv>
#include <functional>
#include <limits>

#include <KRVQTProcessClient/Platform/DefaultsText.h>

namespace krv {
namespace {

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isSpace(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Returns whether the argument is "-name", not "--option" or "-5".
bool isKey(std::string_view argument) noexcept {
    return argument.size() > 1 && argument[0] == '-' && argument[1] != '-' && !isDigit(argument[1]);
}

bool equalIgnoringCase(std::string_view text, std::string_view lower) noexcept {
    return std::equal(text.begin(), text.end(), lower.begin(), lower.end(), [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
    });
}

}  // namespace

std::map<std::string, std::string, std::less<>> settingsFromArguments(std::span<const std::string> arguments) {
    std::map<std::string, std::string, std::less<>> settings;
    for (std::size_t i = 0; i + 1 < arguments.size() && arguments[i] != "--"; ++i) {
        if (isKey(arguments[i]) && !isKey(arguments[i + 1])) {
            settings[arguments[i].substr(1)] = arguments[i + 1];
            ++i;
        }
    }
    return settings;
}

std::int64_t integerFromSetting(std::string_view text) noexcept {
    const auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    text.remove_prefix(static_cast<std::size_t>(first - text.begin()));
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    if (equalIgnoringCase(text, "yes") || equalIgnoringCase(text, "true")) {
        return 1;
    }
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return 0;
        }
    }
    std::int64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (failure == std::errc::result_out_of_range) {
        return text.starts_with('-') ? std::numeric_limits<std::int64_t>::min()
                                     : std::numeric_limits<std::int64_t>::max();
    }
    return value;
}

}  // namespace krv
