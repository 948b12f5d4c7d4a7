#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// A request's parsed settings text. Numbers are within plausible bounds. Whether the encoder has the options is not
/// yet checked.
struct Settings {
    std::optional<int> width;   ///< pixels of the upright frame
    std::optional<int> height;  ///< pixels of the upright frame
    std::optional<int> channels;
    std::optional<int> sampleRate;        ///< Hz
    std::optional<std::int64_t> bitRate;  ///< bits per second
    std::optional<AVPixelFormat> pixelFormat;
    /// Whether the conversion fails if the movie would lose a track or a property of one.
    bool strict = false;
    std::optional<std::int64_t> trimStart;  ///< microseconds from the start of the source
    std::optional<std::int64_t> trimEnd;    ///< microseconds from the start of the source
    /// The audio tracks to keep, or the subtitle tracks: each an index or a language. Empty: all.
    std::vector<std::string> tracks;
    /// The subtitle track that is drawn into the video: an index or a language.
    std::optional<std::string> burnInTrack;
    /// "preset" and all other keys, for the encoder, in their order.
    std::vector<std::pair<std::string, std::string>> options;
};

/// Parses "key=value:key=value". Skips empty parts. Pure. Throws Failure with InvalidArgument for a text that is not
/// UTF-8. Throws Failure with UnsupportedSetting for a part without "=" and for a value that is not a number or out of
/// bounds. Throws the same for keys that would let the encoder open files.
[[nodiscard]] Settings parseSettings(std::string_view text, AVMediaType type);

/// Throws Failure with ValueOutOfRange unless value is 0 or in [low, high]. NaN and infinities are out of range. what:
/// the value's name in the failure's subject.
void checkRange(const char* what, float value, float low, float high);

}  // namespace krv::media
