#pragma once

#include <cstdint>
#include <functional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// What a subtitle track shows from a time on: lines of text in the ASS format, bitmaps, or nothing.
struct Subtitle {
    /// The rectangles. Their times are not used.
    const AVSubtitle& content;
    std::int64_t start;  ///< in microseconds of the movie's own time
    std::int64_t end;    ///< kOpen if it is shown until the next one

    /// The size of the frames that bitmaps were made for; 0: unknown.
    int width = 0;
    int height = 0;

    static constexpr std::int64_t kOpen = INT64_MAX;
};

/// Decodes a track of subtitles. Not thread-safe.
class SubtitleDecoder {
public:
    using Take = std::function<void(const Subtitle&)>;

    /// Borrows the stream. Throws Failure with UnconvertibleSubtitles.
    explicit SubtitleDecoder(const AVStream& from);

    /// Returns the decoder's context, whose subtitle_header has the styles of text.
    [[nodiscard]] const AVCodecContext& context() const noexcept { return *decoder_; }

    /// Calls take for what a packet of the stream contains. Skips damaged packets and those that the edits of the movie
    /// cut out.
    void push(const AVPacket& packet, const Take& take);

private:
    const AVStream& from_;
    CodecContextPtr decoder_;
    PacketPtr packet_ = newPacket();
};

}  // namespace krv::media
