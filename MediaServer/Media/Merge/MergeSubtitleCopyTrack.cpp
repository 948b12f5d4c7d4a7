#include <algorithm>
#include <array>
#include <cstring>

#include <MediaServer/Media/Merge/MergeSubtitleCopyTrack.h>
#include <MediaServer/Media/Subtitles/SubtitleWriter.h>

namespace krv::media {
namespace {

/// The segments of a display set of Blu-ray subtitles. Each has its kind, and its length in two bytes.
constexpr std::uint8_t kComposition = 0x16;
constexpr std::uint8_t kEndOfSet = 0x80;
constexpr std::size_t kHead = 3;
constexpr std::size_t kCompositionLength = 11;
constexpr std::size_t kSize = 4;          // of the video, and
constexpr std::size_t kFrameRate = 1;     // its rate, with which a composition begins
constexpr std::size_t kObjectCount = 10;  // where in the composition

/// Returns a display set that shows nothing and so ends the one before, or null if that shows nothing itself.
PacketPtr clearingSet(const AVPacket& packet) {
    const auto* const data = packet.data;
    if (packet.size < static_cast<int>(kHead + kCompositionLength) || data[0] != kComposition ||
        data[kHead + kObjectCount] == 0) {
        return nullptr;
    }
    std::array<std::uint8_t, kHead + kCompositionLength + kHead> set{kComposition, 0, kCompositionLength};
    std::copy_n(data + kHead, kSize + kFrameRate, set.begin() + kHead);
    set[kHead + kCompositionLength] = kEndOfSet;
    PacketPtr clearing = newPacket();
    if (av_new_packet(clearing.get(), static_cast<int>(set.size())) < 0) {
        throw std::bad_alloc();
    }
    std::copy(set.begin(), set.end(), clearing->data);
    clearing->flags |= AV_PKT_FLAG_KEY;
    return clearing;
}

}  // namespace

MergeSubtitleCopyTrack::MergeSubtitleCopyTrack(const AVStream& model)
    : model_(model)
    , copier_(model) {}

void MergeSubtitleCopyTrack::push(const AVPacket& packet) {
    const std::int64_t time = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (time == AV_NOPTS_VALUE || (packet.flags & AV_PKT_FLAG_DISCARD) != 0) {
        return;
    }
    const AVRational unit = part_.from->time_base;
    const bool open = packet.duration <= 0;  // shown until the next one
    const std::int64_t limit = av_rescale_q(part_.end - part_.start, kMicroseconds, unit);
    const std::int64_t start = std::max<std::int64_t>(time, 0);
    const std::int64_t end = open ? limit : std::min(time + packet.duration, limit);
    if (start >= end) {
        return;
    }
    PacketPtr moved = reference(packet);
    moved->pts = moved->dts = start;
    moved->duration = open ? 0 : end - start;
    av_packet_rescale_ts(moved.get(), unit, model_.time_base);
    const std::int64_t shift = av_rescale_q(part_.start, kMicroseconds, model_.time_base);
    moved->pts += shift;
    moved->dts += shift;
    if (model_.codecpar->codec_id == AV_CODEC_ID_ASS) {
        numberLine(*moved, lines_++);
    }
    shown_ = open ? reference(*moved) : nullptr;
    copier_.push(*moved);
}

void MergeSubtitleCopyTrack::end() {
    if (shown_ && model_.codecpar->codec_id == AV_CODEC_ID_HDMV_PGS_SUBTITLE) {
        if (PacketPtr clearing = clearingSet(*shown_)) {
            clearing->pts = clearing->dts = av_rescale_q(part_.end, kMicroseconds, model_.time_base);
            copier_.push(*clearing);
        }
    }
    shown_ = nullptr;
}

}  // namespace krv::media
