#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Container/TrackNames.h>
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/Video/FrameRate.h>
#include <MediaServer/Media/Video/FrameReader.h>
#include <MediaServer/Media/Video/Poster.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/parseutils.h>
}

namespace krv::media {
namespace {

/// A clock that was never set starts in 1904 or 1970. No movie file is older than this, in seconds since 1970.
constexpr double kEarliestPlausible = 5 * 365.25 * 24 * 3600;

const AVStream* mainAudioStream(const Source& source) {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        if (source.stream(i).codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            found.push_back(i);
        }
    }
    const auto index = defaultOrFirst(source, found);
    return index ? &source.stream(*index) : nullptr;
}

/// Returns the main video stream, even if it cannot be decoded, so that its codec can be named.
const AVStream* anyVideoStream(const Source& source) {
    if (const auto index = mainVideoStream(source)) {
        return &source.stream(*index);
    }
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        if (source.stream(i).codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover(source.stream(i))) {
            return &source.stream(i);
        }
    }
    return nullptr;
}

std::string layoutName(const AVChannelLayout& layout) {
    // A file that stores only the number of channels means the default layout.
    ChannelLayout usual;
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        usual.assignDefault(layout.nb_channels);
    } else {
        usual.assign(layout);
    }
    std::array<char, 128> text{};
    if (usual.get().order == AV_CHANNEL_ORDER_UNSPEC ||
        av_channel_layout_describe(&usual.get(), text.data(), text.size()) < 0) {
        return fmt::format("{} channels", layout.nb_channels);
    }
    return text.data();
}

std::string describeAudio(const AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    std::string text = displayName(codec.codec_id);
    if (codec.sample_rate > 0) {
        text += fmt::format(", {} Hz", codec.sample_rate);
    }
    if (codec.ch_layout.nb_channels > 0) {
        text += ", " + layoutName(codec.ch_layout);
    }
    return text;
}

std::optional<double> creationTime(const AVFormatContext& format) {
    for (const char* key : {"com.apple.quicktime.creationdate", "creation_time", "date"}) {
        const AVDictionaryEntry* entry = av_dict_get(format.metadata, key, nullptr, 0);
        // A year alone is the year of publication, not a creation time.
        if (!entry || std::string_view(entry->value).size() < std::string_view("2001-01-01").size()) {
            continue;
        }
        std::int64_t microseconds = 0;
        if (av_parse_time(&microseconds, entry->value, 0) < 0) {
            continue;
        }
        const double seconds = static_cast<double>(microseconds) / AV_TIME_BASE;
        if (seconds >= kEarliestPlausible) {
            return seconds;
        }
    }
    return std::nullopt;
}

double measuredDuration(Source& source) {
    const PacketPtr packet = newPacket();
    std::int64_t end = 0;
    while (source.read(*packet)) {
        const AVRational unit = source.stream(static_cast<std::size_t>(packet->stream_index)).time_base;
        const std::int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (time != AV_NOPTS_VALUE) {
            end = std::max(end, av_rescale_q(time + packet->duration, unit, kMicroseconds));
        }
    }
    return static_cast<double>(end - source.start()) / AV_TIME_BASE;
}

MovieInfo describe(const MovieInfoRequest& request, Progress& progress) {
    MovieInfo info;
    Source source(request.source, request.sourcePath, progress);
    source.measure();
    const AVStream* const video = anyVideoStream(source);
    const AVStream* const audio = mainAudioStream(source);
    if (!video && !audio && !hasCover(source)) {
        throw Failure({.cause = FailureCause::NoVideoOrAudioTrack});
    }
    for (const AVStream* stream : {video, audio}) {
        if (stream) {
            info.codecs += (info.codecs.empty() ? "" : ", ") + displayName(stream->codecpar->codec_id);
        }
    }
    if (video && video->codecpar->width > 0) {
        info.dimensions = displayExtent(*video, video->codecpar->width, video->codecpar->height);
    }
    if (video) {
        info.frameRate = averageRate(*video);
    }
    if (audio) {
        info.audio = describeAudio(*audio);
    }
    info.created = creationTime(source.format());
    if (source.duration() > 0) {
        info.duration = static_cast<double>(source.duration()) / AV_TIME_BASE;
    } else if (const double measured = measuredDuration(source); measured > 0) {
        info.duration = measured;
    }
    info.contents = contentsOf(source);
    progress.reach(0.5);
    info.poster = makePoster(source, progress);
    info.truncatedAt = source.truncatedAt();
    return info;
}

}  // namespace

MovieInfo movieInfo(const MovieInfoRequest& request, ProgressSink& sink) {
    Progress progress(sink);
    MovieInfo info = describe(request, progress);
    progress.finish();
    return info;
}

}  // namespace krv::media
