#include "TextValues.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace krvqt {
namespace {

/// Returns a number with the suffix k or M as a whole number. Returns any other text as it is.
std::string writtenOut(std::string_view text) {
    const double factor = text.ends_with('k') || text.ends_with('K') ? 1e3 : text.ends_with('M') ? 1e6 : 0;
    if (factor == 0) {
        return std::string(text);
    }
    double number = 0;
    const char* const end = text.data() + text.size() - 1;
    const auto [rest, failure] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    const double whole = std::round(number * factor);
    return failure == std::errc() && rest == end && number >= 0 && whole < 1e15 ? fmt::format("{:.0f}", whole)
                                                                                : std::string(text);
}

}  // namespace

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

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string bytesText(std::uintmax_t bytes) {
    constexpr std::uintmax_t kKilo = 1000;
    constexpr double kMega = 1e6;
    constexpr double kGiga = 1e9;
    const auto size = static_cast<double>(bytes);
    if (bytes < kKilo) {
        return fmt::format("{} byte{}", bytes, bytes == 1 ? "" : "s");
    }
    if (size < kMega) {
        return fmt::format("{:.0f} kB", std::floor(size / static_cast<double>(kKilo)));
    }
    return size < kGiga ? fmt::format("{:.1f} MB", size / kMega) : fmt::format("{:.2f} GB", size / kGiga);
}

std::string settingsFrom(const std::string& text) {
    std::string settings;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(':', begin), text.size());
        const std::string_view setting = std::string_view(text).substr(begin, end - begin);
        const auto equals = setting.find('=');
        const std::string_view key = setting.substr(0, equals);
        settings += begin == 0 ? "" : ":";
        if (equals != std::string_view::npos && (key == "bitrate" || key == "sampleRate")) {
            settings += fmt::format("{}={}", key, writtenOut(setting.substr(equals + 1)));
        } else {
            settings += setting;
        }
        begin = end + 1;
    }
    return settings;
}

}  // namespace krvqt
