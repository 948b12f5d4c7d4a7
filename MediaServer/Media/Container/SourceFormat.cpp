#include <algorithm>
#include <array>
#include <string_view>

#include <MediaServer/Media/Container/SourceFormat.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// Formats whose files name other files or addresses.
constexpr std::array<std::string_view, 14> kRefused{
    "applehttp", "concat", "dash", "ffmetadata", "hls",    "imf",         "lavfi",
    "rtp",       "rtsp",   "sap",  "sdp",        "vobsub", "vapoursynth", "webm_dash_manifest"};

/// The format that accepts any text as video.
constexpr std::string_view kTextAsVideo = "tty";

bool refused(const AVInputFormat& format) {
    if (format.flags & AVFMT_NOFILE) {
        return true;
    }
    std::string_view names = format.name;
    while (!names.empty()) {
        const auto comma = names.find(',');
        if (std::find(kRefused.begin(), kRefused.end(), names.substr(0, comma)) != kRefused.end()) {
            return true;
        }
        names = comma == std::string_view::npos ? std::string_view() : names.substr(comma + 1);
    }
    return false;
}

/// Returns whether a WebP file is animated, which FFmpeg's decoder does not support. It finds no picture in it.
bool isAnimatedWebP(AVIOContext& io) {
    constexpr std::size_t kFlags = 20;
    constexpr unsigned char kAnimation = 0x02;
    std::array<unsigned char, kFlags + 1> header{};
    const bool whole =
        avio_read(&io, header.data(), static_cast<int>(header.size())) == static_cast<int>(header.size());
    avio_seek(&io, 0, SEEK_SET);
    const std::string_view bytes(reinterpret_cast<const char*>(header.data()), header.size());
    return whole && bytes.starts_with("RIFF") && bytes.substr(8, 8) == "WEBPVP8X" && (header[kFlags] & kAnimation) != 0;
}

}  // namespace

const AVInputFormat& probeFormat(AVIOContext& io, const std::string& path) {
    const std::string extensionOnly = "movie" + path.substr(std::min(path.rfind('.'), path.size()));
    const AVInputFormat* format = nullptr;
    int result = av_probe_input_buffer2(&io, &format, extensionOnly.c_str(), nullptr, 0, 0);
    if (result >= 0 && format && (format->flags & AVFMT_NOFILE)) {
        // By its name a still picture would be taken for a numbered sequence of pictures. Its content shows that it is
        // a single one.
        format = nullptr;
        result = av_probe_input_buffer2(&io, &format, nullptr, nullptr, 0, 0);
    }
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0 || !format || format->name == kTextAsVideo) {
        throw Failure({.cause = FailureCause::UnknownFormat});
    }
    if (refused(*format)) {
        throw Failure({.cause = FailureCause::RefersToOtherFiles, .subject = format->name});
    }
    if (isAnimatedWebP(io)) {
        throw Failure({.cause = FailureCause::UnsupportedFormat, .subject = "animated WebP"});
    }
    return *format;
}

}  // namespace krv::media
