#include "Numbers.h"

#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "Usage.h"

namespace krvqt {

void checkNumber(const std::string& option, const NumberRange& range, const std::string& text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (failure == std::errc() && rest == end && number >= range.least && number <= range.most &&
        (!range.whole || std::trunc(number) == number)) {
        return;
    }
    const std::string limits = std::isinf(range.most) ? fmt::format("of at least {}", range.least)
                                                      : fmt::format("from {} to {}", range.least, range.most);
    throw UsageError(
        fmt::format("{} takes a {}number {}, not '{}'", option, range.whole ? "whole " : "", limits, text));
}

}  // namespace krvqt
