#include <algorithm>

#include <MediaServer/Media/Transcode/SubtitleConverter.h>

namespace krv::media {

SubtitleConverter::SubtitleConverter(const AVStream& from)
    : from_(from)
    , decoder_(from) {}

void SubtitleConverter::open(OutputFile& output) {
    writer_.emplace(from_, decoder_, output);
}

void SubtitleConverter::push(AVPacket& packet) {
    decoder_.push(packet, [this](const Subtitle& lines) {
        const std::int64_t start = std::max<std::int64_t>(lines.start, 0);
        if (lines.content.num_rects > 0 && lines.end > 0) {
            writer_->write({lines.content, start, lines.end});
        }
    });
}

}  // namespace krv::media
