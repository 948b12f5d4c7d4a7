#include "TextValues.h"

#include <charconv>
#include <cmath>

namespace krvqt {

std::optional<PixelSize> sizeFrom(const std::string& text) {
    const auto cross = text.find_first_of("xX");
    if (cross == std::string::npos) {
        return std::nullopt;
    }
    const auto side = [](std::string_view digits) -> std::optional<int> {
        int value = 0;
        if (digits.empty()) {
            return value;
        }
        const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        return failure == std::errc() && end == digits.data() + digits.size() && value >= 0 ? std::optional(value)
                                                                                            : std::nullopt;
    };
    const auto width = side(std::string_view(text).substr(0, cross));
    const auto height = side(std::string_view(text).substr(cross + 1));
    if (!width || !height) {
        return std::nullopt;
    }
    return PixelSize{*width, *height};
}

std::optional<double> secondsFrom(std::string_view text) {
    constexpr int kMostParts = 3;
    constexpr double kSixty = 60;
    double seconds = 0;
    for (int part = 0; part < kMostParts; ++part) {
        const auto colon = text.find(':');
        const std::string_view digits = text.substr(0, colon);
        double value = 0;
        const auto [end, failure] =
            std::from_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed);
        const bool whole = colon == std::string_view::npos || std::trunc(value) == value;
        if (failure != std::errc() || end != digits.data() + digits.size() || !std::isfinite(value) ||
            std::signbit(value) || !whole || (part > 0 && value >= kSixty)) {
            return std::nullopt;
        }
        seconds = seconds * kSixty + value;
        if (colon == std::string_view::npos) {
            return seconds;
        }
        text = text.substr(colon + 1);
    }
    return std::nullopt;
}

}  // namespace krvqt
