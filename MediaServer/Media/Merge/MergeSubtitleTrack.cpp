#include <algorithm>

#include <MediaServer/Media/Merge/MergeSubtitleTrack.h>

namespace krv::media {

MergeSubtitleTrack::MergeSubtitleTrack(const AVStream& model)
    : model_(model) {}

void MergeSubtitleTrack::begin(const MergePart& part) {
    part_ = part;
    if (part.from) {
        decoder_.emplace(*part.from);
    }
}

void MergeSubtitleTrack::push(const AVPacket& packet) {
    decoder_->push(packet, [this](const Subtitle& lines) { place(lines); });
}

void MergeSubtitleTrack::place(const Subtitle& lines) {
    const std::int64_t start = part_.start + std::max<std::int64_t>(lines.start, 0);
    const std::int64_t end =
        lines.end < part_.end - part_.start ? part_.start + std::max<std::int64_t>(lines.end, 0) : part_.end;
    if (lines.content.num_rects > 0 && start < end) {
        writer_->write({lines.content, start, end});
    }
}

}  // namespace krv::media
