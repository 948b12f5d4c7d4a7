#include <algorithm>
#include <utility>

#include <MediaServer/Media/Container/EditTimes.h>
#include <MediaServer/Media/Container/HiddenPackets.h>

namespace krv::media {
namespace {

/// No codec reorders frames by more than this. A larger difference has another cause.
constexpr std::int64_t kLatest = AV_TIME_BASE;

bool isShown(const AVPacket& packet) {
    return (packet.flags & AV_PKT_FLAG_DISCARD) == 0 && packet.pts != AV_NOPTS_VALUE;
}

}  // namespace

bool EditTimes::areNeededFor(const AVStream& stream) {
    return stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && hiddenPackets(stream).severalEdits;
}

EditTimes::EditTimes(const AVFormatContext& format, const MovieEdits& edits) {
    if (edits.timeScale == 0 || edits.timeScale > INT32_MAX) {
        return;
    }
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        const AVStream& stream = *format.streams[i];
        const auto found = std::find_if(edits.tracks.begin(), edits.tracks.end(), [&](const MovieEdits::Track& track) {
            return track.id == static_cast<std::uint32_t>(stream.id);
        });
        if (found == edits.tracks.end() || !areNeededFor(stream)) {
            continue;
        }
        Track track;
        for (const std::int64_t start : found->starts) {
            track.starts.push_back(
                av_rescale_q(start, AVRational{1, static_cast<int>(edits.timeScale)}, stream.time_base));
        }
        track.needed = std::max(stream.codecpar->video_delay, 0) + 1;
        track.longest = av_rescale_q(kLatest, kMicroseconds, stream.time_base);
        tracks_.emplace(stream.index, std::move(track));
    }
}

void EditTimes::push(PacketPtr packet, std::deque<PacketPtr>& ready) {
    const auto track = tracks_.find(packet->stream_index);
    if (track == tracks_.end()) {
        ready.push_back(std::move(packet));
    } else {
        take(track->second, std::move(packet), ready);
    }
}

void EditTimes::take(Track& track, PacketPtr packet, std::deque<PacketPtr>& ready) {
    // After a seek, hidden packets in front show that an edit begins.
    track.steppedBack |= track.lastDts ? packet->dts <= *track.lastDts : !isShown(*packet);
    track.lastDts = packet->dts;
    if (isShown(*packet)) {
        takeShown(track, std::move(packet), ready);
    } else if (track.measuring) {
        track.held.push_back(std::move(packet));
    } else {
        pass(track, std::move(packet), ready);
    }
}

void EditTimes::takeShown(Track& track, PacketPtr packet, std::deque<PacketPtr>& ready) {
    if (std::exchange(track.steppedBack, false)) {
        settle(track, ready);
        const auto later = std::upper_bound(track.starts.begin(), track.starts.end(), packet->pts);
        const auto edit = static_cast<std::size_t>(std::max<std::ptrdiff_t>(later - track.starts.begin() - 1, 0));
        if (edit > track.edit) {
            track.edit = edit;
            track.measuring = true;
            track.shown = 0;
            track.earliest = packet->pts;
        }
    }
    if (!track.measuring) {
        return pass(track, std::move(packet), ready);
    }
    track.earliest = std::min(track.earliest, packet->pts);
    track.held.push_back(std::move(packet));
    if (++track.shown >= track.needed) {
        settle(track, ready);
    }
}

void EditTimes::pass(const Track& track, PacketPtr packet, std::deque<PacketPtr>& ready) {
    for (std::int64_t* const time : {&packet->pts, &packet->dts}) {
        if (*time != AV_NOPTS_VALUE) {
            *time -= track.late;
        }
    }
    ready.push_back(std::move(packet));
}

void EditTimes::settle(Track& track, std::deque<PacketPtr>& ready) {
    if (!std::exchange(track.measuring, false)) {
        return;
    }
    const std::int64_t late = track.earliest - track.starts[track.edit];
    track.late = late >= 0 && late <= track.longest ? late : 0;
    for (PacketPtr& packet : std::exchange(track.held, {})) {
        pass(track, std::move(packet), ready);
    }
}

void EditTimes::finish(std::deque<PacketPtr>& ready) {
    for (auto& [index, track] : tracks_) {
        settle(track, ready);
    }
}

void EditTimes::restart(std::int64_t) {
    for (auto& [index, track] : tracks_) {
        track.edit = 0;
        track.late = 0;
        track.steppedBack = track.measuring = false;
        track.lastDts.reset();
        track.held.clear();
    }
}

}  // namespace krv::media
