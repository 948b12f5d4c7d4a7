#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Finds single frames of a movie by their time.
///
/// Containers are indexed by decoding time, but frames are shown by presentation time. So the frame that is shown at a
/// time is known only when a later frame has been decoded. If the first decoded frame is already too late, because the
/// frame before it lasts for seconds, the reader seeks further back. On the way to a frame, those that no other refers
/// to are not decoded. Not thread-safe, but several readers may read the same descriptor. For many frames, several
/// readers with single-threaded decoders are faster than one reader with a multi-threaded decoder.
class FrameReader {
public:
    /// Borrows the source, at any position, and uses it exclusively until the reader is destroyed. Throws what Decoder
    /// throws, and Failure with NoVideoTrack. threads: of the decoder.
    explicit FrameReader(Source& source, int threads = 1);

    [[nodiscard]] Source& source() noexcept { return source_; }
    [[nodiscard]] const AVStream& stream() const noexcept { return source_.stream(index_); }
    /// Returns the movie's length in microseconds. If the headers do not contain it, reads the movie to the end to
    /// measure it.
    [[nodiscard]] std::int64_t duration();

    /// Returns the frame that is shown at a time, in microseconds of the movie's own time. That is the last one that
    /// begins no later, or else the first one. Returns null if nothing can be decoded.
    [[nodiscard]] FramePtr shownAt(std::int64_t time);

    /// Seeks to the last key frame at or before a time, for next().
    void seekTo(std::int64_t time);
    /// Returns the next frame, with AVFrame::pts in microseconds of the movie's own time. Returns null at the end.
    [[nodiscard]] FramePtr next();
    /// Chooses whether only key frames or all frames are decoded. Takes effect with the next seekTo().
    void onlyKeyFrames(bool only);

private:
    [[nodiscard]] FramePtr shownFrom(std::int64_t from, std::int64_t time);
    [[nodiscard]] FramePtr lastUntil(std::int64_t time);
    [[nodiscard]] FramePtr lastUntilInHaste(std::int64_t time);
    [[nodiscard]] AVDiscard skippedOf(const AVPacket& packet);
    [[nodiscard]] bool isOnTheWay(std::int64_t time) const;
    void decodeMore();

    Source& source_;
    const std::size_t index_;
    Decoder decoder_;
    std::int64_t duration_ = 0;
    std::deque<FramePtr> decoded_;
    FramePtr shown_;  // the latest frame that shownAt() has passed or returned
    bool ended_ = false;
    bool onlyKeyFrames_ = false;
    /// Frames that end until then need not be decoded for their own sake.
    std::optional<std::int64_t> skipUntil_;
    /// The latest time of a frame that may have been left out.
    std::optional<std::int64_t> skipped_;
    const std::int64_t frameLength_;
    std::int64_t expected_;  // time of the next frame if it has no timestamp
};

/// Returns the main video stream: the default one, else the first one. Skips covers and streams without a decoder.
/// Returns nothing if there is none.
[[nodiscard]] std::optional<std::size_t> mainVideoStream(const Source& source);

}  // namespace krv::media
