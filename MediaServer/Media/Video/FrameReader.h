#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Finds single pictures of a movie by their time.
///
/// Containers are sought in by decoding time, pictures are shown by another. So the picture that is shown at a time is
/// known only when a later one has been decoded, and if the first one that comes out is too late already, because a
/// picture before it is held for seconds, one has to go further back. One thread; several readers may read the same
/// descriptor, each with a decoder of one thread, which is quicker for many pictures than one decoder of many.
class FrameReader {
public:
    /// The source, wherever it stands, belongs to the reader as long as that lives. Throws what Decoder throws, and
    /// Failure with NoVideoTrack.
    explicit FrameReader(Source& source);

    [[nodiscard]] Source& source() noexcept { return source_; }
    [[nodiscard]] const AVStream& stream() const noexcept { return source_.stream(index_); }
    /// The movie's length in microseconds; measured by reading to the end where the headers do not tell it.
    [[nodiscard]] std::int64_t duration();

    /// The picture that is shown at a time, in microseconds of the movie's own time: the last one that begins no later,
    /// or the first one of all. Null when nothing at all can be decoded.
    [[nodiscard]] FramePtr shownAt(std::int64_t time);

    /// Goes to the last key frame at or before a time, for next().
    void goTo(std::int64_t time);
    /// The following picture, its time in microseconds of the movie's own time in AVFrame::pts; null at the end.
    [[nodiscard]] FramePtr next();
    /// From now on only key frames are decoded, or all pictures again. Takes effect with the next goTo().
    void onlyKeyFrames(bool only);

private:
    [[nodiscard]] FramePtr lastUntil(std::int64_t time);
    [[nodiscard]] bool isOnTheWay(std::int64_t time) const;
    void decodeMore();

    Source& source_;
    const std::size_t index_;
    Decoder decoder_;
    std::int64_t duration_ = 0;
    std::deque<FramePtr> decoded_;
    FramePtr shown_;  // the latest one that shownAt() has gone past or returned
    bool ended_ = false;
    const std::int64_t frameLength_;
    std::int64_t expected_;  // time of the next picture if it does not tell its own
};

/// The stream whose pictures are meant: the default one, or the first, that is no cover picture; none when there are no
/// moving pictures that could be decoded.
[[nodiscard]] std::optional<std::size_t> mainVideoStream(const Source& source);

}  // namespace krv::media
