#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace krvqt {

/// Width and height in pixels.
struct PixelSize {
    int width = 0;
    int height = 0;
    friend bool operator==(PixelSize, PixelSize) = default;
};

/// Parses "640x360". Either side may be 0 or missing, which is 0 too. Returns nullopt for any other text.
[[nodiscard]] std::optional<PixelSize> sizeFrom(const std::string& text);

/// Parses a time: seconds ("90.5"), minutes and seconds ("1:30.5") or hours, minutes and seconds ("0:01:30.5"). Returns
/// seconds, or nullopt for any other text.
[[nodiscard]] std::optional<double> secondsFrom(std::string_view text);

[[nodiscard]] std::string lowerCase(std::string text);

/// Returns a size of a file for people: "812 bytes", "38 kB", "1.2 MB".
[[nodiscard]] std::string bytesText(std::uintmax_t bytes);

/// Returns the settings of an encoder as the server takes them: in "key=value:key=value", bit rates and sample rates
/// such as "192k" and "1.5M" are written out.
[[nodiscard]] std::string settingsFrom(const std::string& text);

}  // namespace krvqt
