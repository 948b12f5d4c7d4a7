#include <algorithm>
#include <utility>

#include <MediaServer/Media/Container/PartReader.h>

namespace krv::media {
namespace {

/// How long before a part reading begins, in microseconds. Tracks are interleaved inexactly, decoders of audio need a few
/// packets, and a subtitle lasts some seconds.
constexpr std::int64_t kApproach = 1'000'000;
constexpr std::int64_t kApproachForSubtitles = 10'000'000;

/// How much audio before a part is kept. The slowest decoders need less.
constexpr std::int64_t kKeptAudio = 300'000;

bool isPlayed(AVMediaType kind) {
    return kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO;
}

std::int64_t timeOf(const AVPacket& packet) {
    return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

std::int64_t decodedAt(const AVPacket& packet) {
    return packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
}

}  // namespace

PartReader::PartReader(Source& source, const std::vector<std::size_t>& indices)
    : source_(source) {
    source.select(indices);
    if (!source.part()) {
        return;
    }
    std::optional<std::size_t> guide;  // seek in a video stream if there is one
    bool subtitles = false;
    for (const std::size_t index : indices) {
        const AVMediaType kind = source.stream(index).codecpar->codec_type;
        subtitles |= kind == AVMEDIA_TYPE_SUBTITLE;
        if (isPlayed(kind)) {
            streams_[static_cast<int>(index)];
            if (!guide || kind == AVMEDIA_TYPE_VIDEO) {
                guide = kind == AVMEDIA_TYPE_VIDEO || !guide ? index : *guide;
            }
        }
    }
    if (source.part()->start <= 0 || !guide) {
        return;
    }
    // In recordings whose clock jumps, a seek by time is not exact.
    const bool jumps = (source.format().iformat->flags & AVFMT_TS_DISCONT) != 0;
    if (!jumps && !source.seek(*guide, subtitles ? -kApproachForSubtitles : -kApproach)) {
        (void)source.rewind();
    }
    approach();
}

// Reads until every track has reached the part, or one of them is so far in it that the others have none.
void PartReader::approach() {
    const PacketPtr packet = newPacket();
    std::int64_t number = 0;
    bool there = false;
    while (!there && source_.read(*packet)) {
        Stream& stream = streams_[packet->stream_index];
        keep(stream, *packet, number++);
        if (isPlayed(kindOf(*packet))) {
            const std::int64_t time = decodedAt(*packet);
            stream.begun |= time != AV_NOPTS_VALUE && time > 0;
            there = time != AV_NOPTS_VALUE && time > inStream(*packet, kApproach);
        }
        there |= std::all_of(streams_.begin(), streams_.end(), [this](const auto& one) {
            const AVMediaType kind = source_.stream(static_cast<std::size_t>(one.first)).codecpar->codec_type;
            return one.second.begun || !isPlayed(kind);
        });
    }
    std::vector<Numbered> all;
    for (auto& [index, stream] : streams_) {
        std::move(stream.before.begin(), stream.before.end(), std::back_inserter(all));
        stream.before.clear();
    }
    std::sort(all.begin(), all.end(), [](const Numbered& a, const Numbered& b) { return a.number < b.number; });
    for (Numbered& one : all) {
        queued_.push_back(std::move(one.packet));
    }
}

void PartReader::keep(Stream& stream, const AVPacket& packet, std::int64_t number) {
    const std::int64_t time = timeOf(packet);
    const AVMediaType kind = kindOf(packet);
    auto& before = stream.before;
    if (time != AV_NOPTS_VALUE && time <= 0) {
        if (kind == AVMEDIA_TYPE_VIDEO && (packet.flags & AV_PKT_FLAG_KEY) != 0) {
            before.clear();
        } else if (kind == AVMEDIA_TYPE_AUDIO) {
            const std::int64_t earliest = inStream(packet, -kKeptAudio);
            while (!before.empty() && timeOf(*before.front().packet) < earliest) {
                before.pop_front();
            }
        } else if (kind == AVMEDIA_TYPE_SUBTITLE) {
            // Without a duration, one is shown until the next one.
            std::erase_if(before, [](const Numbered& one) { return one.packet->duration <= 0; });
        }
    }
    before.push_back({number, reference(packet)});
}

bool PartReader::next(AVPacket& packet) {
    if (queued_.empty()) {
        return source_.read(packet);
    }
    av_packet_unref(&packet);
    av_packet_move_ref(&packet, queued_.front().get());
    queued_.pop_front();
    return true;
}

bool PartReader::read(AVPacket& packet) {
    if (!source_.part()) {
        return source_.read(packet);
    }
    while (!allEnded() && next(packet)) {
        if (admit(packet)) {
            return true;
        }
    }
    return false;
}

bool PartReader::admit(AVPacket& packet) {
    const AVMediaType kind = kindOf(packet);
    const std::int64_t time = timeOf(packet);
    if (time == AV_NOPTS_VALUE) {
        return true;
    }
    if (!isPlayed(kind)) {
        return clipSubtitle(packet);
    }
    const std::int64_t end = inStream(packet, source_.part()->length());
    Stream& stream = streams_[packet.stream_index];
    if (decodedAt(packet) >= end) {
        stream.ended = true;
        return false;
    }
    if (kind == AVMEDIA_TYPE_AUDIO && time + packet.duration <= 0) {
        packet.flags |= AV_PKT_FLAG_DISCARD;
    }
    if (time >= end) {
        if (packet.duration != 0 || time != end) {
            stream.after.push_back(reference(packet));
            return false;
        }
        return true;  // was delayed
    }
    packet.duration = std::min(packet.duration, end - time);
    if (stream.after.empty()) {
        return true;
    }
    // This frame depends on those before it.
    queued_.push_front(reference(packet));
    for (auto one = stream.after.rbegin(); one != stream.after.rend(); ++one) {
        (*one)->pts = end;
        (*one)->duration = 0;
        queued_.push_front(std::move(*one));
    }
    stream.after.clear();
    return false;
}

bool PartReader::clipSubtitle(AVPacket& packet) const {
    const std::int64_t end = inStream(packet, source_.part()->length());
    const std::int64_t time = timeOf(packet);
    const bool open = packet.duration <= 0;  // shown until the next one
    if (time >= end || (!open && time + packet.duration <= 0)) {
        return false;
    }
    const std::int64_t start = std::max<std::int64_t>(time, 0);
    packet.duration = open ? packet.duration : std::min(time + packet.duration, end) - start;
    packet.pts = packet.dts = start;
    return true;
}

bool PartReader::allEnded() const {
    return !streams_.empty() && std::all_of(streams_.begin(), streams_.end(), [this](const auto& one) {
        const AVMediaType kind = source_.stream(static_cast<std::size_t>(one.first)).codecpar->codec_type;
        return one.second.ended || !isPlayed(kind);
    });
}

AVMediaType PartReader::kindOf(const AVPacket& packet) const {
    return source_.stream(static_cast<std::size_t>(packet.stream_index)).codecpar->codec_type;
}

std::int64_t PartReader::inStream(const AVPacket& packet, std::int64_t microseconds) const {
    return av_rescale_q(microseconds, kMicroseconds,
                        source_.stream(static_cast<std::size_t>(packet.stream_index)).time_base);
}

}  // namespace krv::media
