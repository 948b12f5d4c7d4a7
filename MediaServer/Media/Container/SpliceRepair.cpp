#include <algorithm>
#include <cstdlib>
#include <utility>

#include <MediaServer/Media/Container/SpliceRepair.h>

namespace krv::media {
namespace {

/// A larger forward jump of the clock is a splice, not a pause. Backward jumps are splices unless they are as small as
/// those of inexact clocks.
constexpr std::int64_t kForward = 10 * static_cast<std::int64_t>(AV_TIME_BASE);
constexpr std::int64_t kBackward = AV_TIME_BASE / 10;

/// Streams that belong together are not further apart than this.
constexpr std::int64_t kTogether = kForward;

/// The main stream has ended if it does not show a jump within so many packets and bytes.
constexpr std::size_t kMostHeld = 1000;
constexpr std::int64_t kMostHeldBytes = std::int64_t{16} << 20;

bool isPlayed(const AVStream& stream) {
    const AVMediaType kind = stream.codecpar->codec_type;
    return (kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO) && stream.discard != AVDISCARD_ALL &&
           (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0;
}

std::int64_t inMicroseconds(std::int64_t time, const AVStream& stream) {
    return av_rescale_q(time, stream.time_base, kMicroseconds);
}

/// Returns how long a packet is shown or heard, also if the demuxer does not know.
std::int64_t lengthOf(const AVPacket& packet, const AVStream& stream) {
    const AVRational rate = stream.avg_frame_rate;
    if (packet.duration <= 0 && stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && rate.num > 0 && rate.den > 0) {
        return av_rescale_q(1, av_inv_q(rate), kMicroseconds);
    }
    return std::max<std::int64_t>(inMicroseconds(packet.duration, stream), 0);
}

/// Returns when a packet is shown or heard, according to the file.
std::int64_t shownAt(const AVPacket& packet, const AVStream& stream) {
    return inMicroseconds(packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts, stream);
}

}  // namespace

SpliceRepair::SpliceRepair(const AVFormatContext& format)
    : format_(format)
    , tracks_(format.nb_streams) {}

const AVStream& SpliceRepair::streamOf(const AVPacket& packet) const {
    return *format_.streams[packet.stream_index];
}

SpliceRepair::Track& SpliceRepair::trackOf(const AVPacket& packet) {
    return tracks_[static_cast<std::size_t>(packet.stream_index)];
}

bool SpliceRepair::isHeld(int stream) const {
    return std::any_of(held_.begin(), held_.end(),
                       [stream](const PacketPtr& each) { return each->stream_index == stream; });
}

void SpliceRepair::chooseMain() {
    for (const AVMediaType kind : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
        for (std::size_t i = 0; i < tracks_.size() && !main_; ++i) {
            const AVStream& stream = *format_.streams[i];
            if (isPlayed(stream) && stream.codecpar->codec_type == kind) {
                main_ = i;
            }
        }
    }
}

std::optional<std::int64_t> SpliceRepair::stateAt(const AVPacket& packet) const {
    return offsets_[tracks_[static_cast<std::size_t>(packet.stream_index)].part];
}

void SpliceRepair::restart(std::int64_t state) {
    std::fill(tracks_.begin(), tracks_.end(), Track{});
    offsets_ = {state};
    held_.clear();
    heldBytes_ = 0;
    main_.reset();
}

void SpliceRepair::push(PacketPtr packet, std::deque<PacketPtr>& ready) {
    if (!main_) {
        chooseMain();
    }
    const AVStream& stream = streamOf(*packet);
    if (!isPlayed(stream) || packet->dts == AV_NOPTS_VALUE) {
        const bool timed = packet->dts != AV_NOPTS_VALUE || packet->pts != AV_NOPTS_VALUE;
        const std::size_t part = timed ? nearestPart(shownAt(*packet, stream)) : offsets_.size() - 1;
        return move(std::move(packet), part, ready);
    }
    if (isHeld(packet->stream_index)) {
        hold(std::move(packet), ready);
    } else {
        take(std::move(packet), ready);
    }
}

void SpliceRepair::take(PacketPtr packet, std::deque<PacketPtr>& ready) {
    const AVStream& stream = streamOf(*packet);
    Track& track = trackOf(*packet);
    const std::int64_t time = inMicroseconds(packet->dts, stream);
    bool began = false;
    if (!track.last) {
        track.part = nearestPart(time);
    } else if ((time - *track.last > kForward || *track.last - time > kBackward) && !enterKnownPart(track, time)) {
        if (main_ != static_cast<std::size_t>(stream.index)) {
            return hold(std::move(packet), ready);
        }
        beginPart(*packet);
        began = true;
    }
    track.last = time;
    const std::int64_t shown = shownAt(*packet, stream) + offsets_[track.part];
    const std::int64_t length = lengthOf(*packet, stream);
    const bool audio = stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    if (track.entersPart && audio && shown + length / 2 < track.end) {
        return;  // it overlaps the part before; played after that, it would delay all later audio
    }
    track.entersPart = false;
    track.end = std::max(track.end, shown + length);
    move(std::move(packet), track.part, ready);
    if (began) {
        releaseHeld(ready);
    }
}

void SpliceRepair::hold(PacketPtr packet, std::deque<PacketPtr>& ready) {
    heldBytes_ += packet->size;
    held_.push_back(std::move(packet));
    if (held_.size() > kMostHeld || heldBytes_ > kMostHeldBytes) {
        finish(ready);
    }
}

void SpliceRepair::releaseHeld(std::deque<PacketPtr>& ready) {
    heldBytes_ = 0;
    for (PacketPtr& packet : std::exchange(held_, {})) {
        push(std::move(packet), ready);
    }
}

void SpliceRepair::finish(std::deque<PacketPtr>& ready) {
    // The main stream has ended, or its clock goes on: then the jump is that of another stream.
    while (!held_.empty()) {
        beginPart(*held_.front());
        PacketPtr first = std::move(held_.front());
        held_.pop_front();
        trackOf(*first).last = inMicroseconds(first->dts, streamOf(*first));
        take(std::move(first), ready);
        releaseHeld(ready);
    }
}

/// Moves a stream to the first later part in which it goes on where it was. Returns false if there is none yet.
bool SpliceRepair::enterKnownPart(Track& track, std::int64_t time) const {
    for (std::size_t part = track.part + 1; part < offsets_.size(); ++part) {
        if (std::abs(time + offsets_[part] - track.end) <= kTogether) {
            track.part = part;
            track.entersPart = true;
            return true;
        }
    }
    return false;
}

/// Begins a part in which the packet's stream goes on where it was.
void SpliceRepair::beginPart(const AVPacket& packet) {
    Track& track = trackOf(packet);
    offsets_.push_back(track.end - shownAt(packet, streamOf(packet)));
    track.part = offsets_.size() - 1;
}

/// Returns the part in which a time of the file is nearest to where the main stream has come to.
std::size_t SpliceRepair::nearestPart(std::int64_t time) const {
    if (!main_ || !tracks_[*main_].last) {
        return offsets_.size() - 1;
    }
    const std::int64_t here = tracks_[*main_].end;
    const auto nearest = std::min_element(offsets_.begin(), offsets_.end(), [&](std::int64_t a, std::int64_t b) {
        return std::abs(time + a - here) < std::abs(time + b - here);
    });
    return static_cast<std::size_t>(nearest - offsets_.begin());
}

void SpliceRepair::move(PacketPtr packet, std::size_t part, std::deque<PacketPtr>& ready) const {
    const std::int64_t units = av_rescale_q(offsets_[part], kMicroseconds, streamOf(*packet).time_base);
    for (std::int64_t* const time : {&packet->pts, &packet->dts}) {
        if (*time != AV_NOPTS_VALUE) {
            *time += units;
        }
    }
    ready.push_back(std::move(packet));
}

}  // namespace krv::media
