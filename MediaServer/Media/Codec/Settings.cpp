#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include <MediaServer/Media/Codec/Settings.h>

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/pixdesc.h>
}

#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// Options with which an encoder writes or reads files of its own, or uses more than its share of the machine.
constexpr std::array<std::string_view, 6> kRefusedKeys{"stats",   "passlogfile", "vstats_file",
                                                       "threads", "thread_type", "dump_separator"};
/// Parts of such options in an encoder's own option list.
constexpr std::array<std::string_view, 12> kRefusedParts{"stats",    "dump",   "csv",          "recon",
                                                         "analysis", "log",    "qpfile",       "zones",
                                                         "cqmfile",  "lambda", "scaling-list", "dolby-vision-rpu"};

/// A thousand hours.
constexpr double kMostSeconds = 3'600'000;

[[noreturn]] void refuse(std::string_view key, std::string why) {
    throw Failure({.cause = FailureCause::UnsupportedSetting, .subject = std::string(key), .detail = std::move(why)});
}

bool isUTF8(std::string_view text) {
    const auto* at = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto* end = at + text.size();
    while (at < end) {
        std::int32_t code = 0;
        if (av_utf8_decode(&code, &at, end, AV_UTF8_FLAG_ACCEPT_NON_CHARACTERS) < 0) {
            return false;
        }
    }
    return true;
}

template <typename Integer>
Integer number(std::string_view key, std::string_view value, Integer low, Integer high) {
    Integer result = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), result);
    if (error != std::errc() || end != value.data() + value.size()) {
        refuse(key, fmt::format("is not a whole number: “{}”", value));
    }
    if (result < low || result > high) {
        refuse(key, fmt::format("is out of range ({} to {}): {}", low, high, value));
    }
    return result;
}

/// Returns microseconds.
std::int64_t seconds(std::string_view key, std::string_view value) {
    double result = 0;
    const char* const end = value.data() + value.size();
    const auto [rest, error] = std::from_chars(value.data(), end, result, std::chars_format::fixed);
    if (error != std::errc() || rest != end || !std::isfinite(result)) {
        refuse(key, fmt::format("is not a number of seconds: “{}”", value));
    }
    if (std::signbit(result) || result > kMostSeconds) {
        refuse(key, fmt::format("is out of range (0 to {}): {}", kMostSeconds, value));
    }
    return std::llround(result * AV_TIME_BASE);
}

std::vector<std::string> trackNames(std::string_view key, std::string_view list) {
    std::vector<std::string> names;
    for (bool more = true; more;) {
        const auto comma = list.find(',');
        const auto name = list.substr(0, comma);
        if (name.empty()) {
            refuse(key, "has an empty entry");
        }
        names.emplace_back(name);
        more = comma != std::string_view::npos;
        list = more ? list.substr(comma + 1) : std::string_view();
    }
    return names;
}

AVPixelFormat pixelFormat(std::string_view key, const std::string& value) {
    const AVPixelFormat format = av_get_pix_fmt(value.c_str());
    if (format == AV_PIX_FMT_NONE) {
        refuse(key, fmt::format("names an unknown pixel format: “{}”", value));
    }
    return format;
}

void checkEncoderOption(std::string_view key, std::string_view value) {
    if (std::find(kRefusedKeys.begin(), kRefusedKeys.end(), key) != kRefusedKeys.end()) {
        refuse(key, "cannot be set");
    }
    const bool carriesList = key.ends_with("-params") || key.ends_with("opts");
    for (const auto part : kRefusedParts) {
        if (carriesList && value.find(part) != std::string_view::npos) {
            refuse(key, fmt::format("cannot be set to “{}”", value));
        }
    }
    // Two-pass encoding needs a statistics file, which the worker cannot open.
    if (key == "flags" && value.find("pass") != std::string_view::npos) {
        refuse(key, fmt::format("cannot be set to “{}”", value));
    }
}

void apply(Settings& settings, std::string_view key, const std::string& value, bool video) {
    if (key == "bitrate") {
        settings.bitRate = number<std::int64_t>(key, value, 1'000, 1'000'000'000);
    } else if (key == "strict") {
        settings.strict = number(key, value, 0, 1) == 1;
    } else if (key == "trimStart") {
        settings.trimStart = seconds(key, value);
    } else if (key == "trimEnd") {
        settings.trimEnd = seconds(key, value);
    } else if (key == (video ? "subtitleTracks" : "audioTracks")) {
        settings.tracks = trackNames(key, value);
    } else if (video && key == "burnInSubtitleTrack") {
        const auto names = trackNames(key, value);
        if (names.size() > 1) {
            refuse(key, fmt::format("names several tracks: “{}”", value));
        }
        settings.burnInTrack = names.front();
    } else if (video && key == "width") {
        settings.width = number(key, value, 2, 16384);
    } else if (video && key == "height") {
        settings.height = number(key, value, 2, 16384);
    } else if (video && key == "pixelFormat") {
        settings.pixelFormat = pixelFormat(key, value);
    } else if (!video && key == "channels") {
        settings.channels = number(key, value, 1, 8);
    } else if (!video && key == "sampleRate") {
        settings.sampleRate = number(key, value, 8'000, 192'000);
    } else {
        checkEncoderOption(key, value);
        settings.options.emplace_back(key, value);
    }
}

}  // namespace

Settings parseSettings(std::string_view text, AVMediaType type) {
    if (!isUTF8(text)) {
        throw Failure({.cause = FailureCause::InvalidArgument, .subject = "settings", .detail = "is not UTF-8 text"});
    }
    Settings settings;
    while (!text.empty()) {
        const auto colon = text.find(':');
        const auto part = text.substr(0, colon);
        text = colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1);
        if (part.empty()) {
            continue;
        }
        const auto equals = part.find('=');
        const auto key = part.substr(0, equals);
        if (equals == std::string_view::npos || key.empty()) {
            refuse(part, "has no value");
        }
        if (part.find('\0') != std::string_view::npos) {
            refuse(key.substr(0, key.find('\0')), "contains a null character");
        }
        apply(settings, key, std::string(part.substr(equals + 1)), type == AVMEDIA_TYPE_VIDEO);
    }
    return settings;
}

void checkRange(const char* what, float value, float low, float high) {
    if (value == 0 || (std::isfinite(value) && value >= low && value <= high)) {
        return;
    }
    throw Failure({.cause = FailureCause::ValueOutOfRange,
                   .subject = fmt::format("{} {}", what, value),
                   .detail = fmt::format("0 or from {} to {}", low, high)});
}

}  // namespace krv::media
