#include <algorithm>
#include <limits>
#include <map>

#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Merge/MergeSurvey.h>
#include <MediaServer/Media/Video/FrameRate.h>

namespace krv::media {
namespace {

TrackSurvey named(const Source& source, std::size_t index) {
    TrackSurvey track;
    track.index = index;
    track.parameters.reset(notNull(avcodec_parameters_alloc()));
    if (avcodec_parameters_copy(track.parameters.get(), source.stream(index).codecpar) < 0) {
        throw std::bad_alloc();
    }
    return track;
}

TrackSurvey describeSubtitles(const Source& source, std::size_t index) {
    const AVStream& stream = source.stream(index);
    TrackSurvey track = named(source, index);
    const AVDictionaryEntry* const language = av_dict_get(stream.metadata, "language", nullptr, 0);
    track.language = language ? language->value : "und";
    track.forced = (stream.disposition & AV_DISPOSITION_FORCED) != 0;
    return track;
}

TrackSurvey describe(const Source& source, std::size_t index) {
    const AVStream& stream = source.stream(index);
    TrackSurvey track = named(source, index);
    const AVRational shape = stream.sample_aspect_ratio;
    track.pixelShape = shape.num > 0 ? shape : stream.codecpar->sample_aspect_ratio;
    std::size_t size = 0;
    if (const std::uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size)) {
        track.displayMatrix.assign(matrix, matrix + size);
    }
    if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
        track.rate = frameRate(source, stream);
        track.isTransparent = hasAlpha(stream);
    }
    if (!avcodec_find_decoder(stream.codecpar->codec_id)) {
        throw Failure({.cause = FailureCause::UnknownCodec, .subject = avcodec_get_name(stream.codecpar->codec_id)});
    }
    return track;
}

/// Gathers the properties of a track from its packets.
class Watcher {
public:
    Watcher(TrackSurvey& track, const AVStream& stream)
        : track_(track)
        , stream_(stream)
        , isVideo_(stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {}

    void see(const AVPacket& packet) {
        const std::int64_t pts = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
        if (!seen_) {
            track_.startsWithKeyFrame = !isVideo_ || (packet.flags & AV_PKT_FLAG_KEY);
            firstPts_ = pts;
        }
        seen_ = true;
        ++track_.packets;
        const std::int64_t duration = lengthOf(packet);
        track_.longestPacket = std::max(track_.longestPacket, av_rescale_q(duration, stream_.time_base, kMicroseconds));
        if (packet.flags & AV_PKT_FLAG_DISCARD) {
            track_.hidesPackets = true;
            track_.hidesLaterPackets |= end_ > start_;
        }
        if (pts == AV_NOPTS_VALUE) {
            latest_ += duration;
            return;
        }
        if (isVideo_ && pts < firstPts_) {
            track_.startsWithKeyFrame = false;
        }
        if (isVideo_ && pts < latest_) {
            track_.reordersFrames = true;
        }
        latest_ = std::max(latest_, pts);
        if (packet.flags & AV_PKT_FLAG_DISCARD) {
            return;
        }
        start_ = std::min(start_, pts);
        end_ = std::max(end_, pts + duration - hiddenAtEnd(packet));
    }

    /// Completes the survey. Returns false if nothing of the track is shown.
    [[nodiscard]] bool conclude() {
        if (end_ <= start_) {
            return false;
        }
        track_.start = std::max<std::int64_t>(0, av_rescale_q(start_, stream_.time_base, kMicroseconds));
        track_.end = av_rescale_q(end_, stream_.time_base, kMicroseconds);
        track_.reordersFrames |= stream_.codecpar->video_delay > 0;
        return track_.end > 0;
    }

private:
    [[nodiscard]] std::int64_t lengthOf(const AVPacket& packet) const {
        if (packet.duration > 0) {
            return packet.duration;
        }
        if (isVideo_) {
            return std::max<std::int64_t>(1, av_rescale_q(1, av_inv_q(track_.rate), stream_.time_base));
        }
        const int samples = std::max(0, av_get_audio_frame_duration2(stream_.codecpar, packet.size));
        return av_rescale_q(samples, AVRational{1, stream_.codecpar->sample_rate}, stream_.time_base);
    }

    /// Returns the duration of the padding at the end of the last packet.
    [[nodiscard]] std::int64_t hiddenAtEnd(const AVPacket& packet) const {
        std::size_t size = 0;
        const std::uint8_t* data = av_packet_get_side_data(&packet, AV_PKT_DATA_SKIP_SAMPLES, &size);
        if (!data || size < 8 || isVideo_) {
            return 0;
        }
        std::uint32_t samples = 0;
        for (int i = 3; i >= 0; --i) {
            samples = samples << 8 | data[4 + i];
        }
        const std::int64_t hidden =
            av_rescale_q(samples, AVRational{1, stream_.codecpar->sample_rate}, stream_.time_base);
        return std::min(hidden, packet.duration);
    }

    TrackSurvey& track_;
    const AVStream& stream_;
    const bool isVideo_;
    bool seen_ = false;
    std::int64_t firstPts_ = 0;
    std::int64_t latest_ = std::numeric_limits<std::int64_t>::min() / 2;
    std::int64_t start_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t end_ = std::numeric_limits<std::int64_t>::min();
};

}  // namespace

std::int64_t SourceSurvey::longest() const {
    std::int64_t end = 0;
    for (const auto* tracks : {&video, &audio}) {
        for (const TrackSurvey& track : *tracks) {
            end = std::max(end, track.end);
        }
    }
    return end;
}

std::int64_t SourceSurvey::shortest() const {
    std::int64_t end = longest();
    for (const auto* tracks : {&video, &audio}) {
        for (const TrackSurvey& track : *tracks) {
            end = std::min(end, track.end);
        }
    }
    return end;
}

SourceSurvey survey(Source& source, const std::function<void(double)>& position) {
    SourceSurvey result;
    const auto video = usableStreams(source, AVMEDIA_TYPE_VIDEO);
    const auto audio = usableStreams(source, AVMEDIA_TYPE_AUDIO);
    if (video.empty() && audio.empty()) {
        throw Failure({.cause = FailureCause::NoVideoOrAudioTrack});
    }
    if (const auto shown = defaultOrFirst(source, video)) {
        result.video.push_back(describe(source, *shown));
    }
    for (const std::size_t index : audio) {
        result.audio.push_back(describe(source, index));
    }
    for (const std::size_t index : usableStreams(source, AVMEDIA_TYPE_SUBTITLE)) {
        result.subtitles.push_back(describeSubtitles(source, index));
    }

    std::map<int, Watcher> watchers;
    std::vector<std::size_t> read;
    for (auto* tracks : {&result.video, &result.audio}) {
        for (TrackSurvey& track : *tracks) {
            read.push_back(track.index);
            watchers.emplace(static_cast<int>(track.index), Watcher(track, source.stream(track.index)));
        }
    }
    source.select(read);
    const PacketPtr packet = newPacket();
    while (source.read(*packet)) {
        watchers.at(packet->stream_index).see(*packet);
        position(source.position());
    }
    // Ignore tracks of which nothing is shown.
    for (auto* tracks : {&result.video, &result.audio}) {
        std::erase_if(*tracks,
                      [&](TrackSurvey& track) { return !watchers.at(static_cast<int>(track.index)).conclude(); });
    }
    if (result.video.empty() && result.audio.empty()) {
        throw Failure({.cause = FailureCause::NoPlayableTrack});
    }

    result.chapters = chaptersOf(source);
    for (std::size_t i = 0; i < source.streamCount() && !result.cover; ++i) {
        if (isCopyableCover(source.stream(i))) {
            result.cover = i;
        }
    }
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        const AVStream& stream = source.stream(i);
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT) {
            const AVDictionaryEntry* const name = av_dict_get(stream.metadata, "filename", nullptr, 0);
            result.attachments.push_back({i, name ? name->value : "", stream.codecpar->extradata_size});
        }
    }
    result.bytes = std::max<std::int64_t>(0, avio_size(source.format().pb));
    if (const AVDictionaryEntry* title = av_dict_get(source.format().metadata, "title", nullptr, 0)) {
        result.title = title->value;
    }
    return result;
}

}  // namespace krv::media
