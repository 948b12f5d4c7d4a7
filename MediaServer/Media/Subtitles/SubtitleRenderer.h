#pragma once

#include <cstdint>
#include <optional>

#include <MediaServer/Media/Subtitles/OverlayImage.h>
#include <MediaServer/Media/Subtitles/SubtitleDecoder.h>

namespace krv::media {

/// Makes pictures of subtitles to lay over frames. Not thread-safe.
class SubtitleRenderer {
public:
    SubtitleRenderer() = default;
    virtual ~SubtitleRenderer() = default;
    SubtitleRenderer(const SubtitleRenderer&) = delete;
    SubtitleRenderer& operator=(const SubtitleRenderer&) = delete;

    /// Adds what the track shows from a time on. Call it in the order of times, and before the frames of that time.
    virtual void add(const Subtitle& subtitle) = 0;
    /// Makes the picture for a time in microseconds. Times must not fall. Returns false and changes nothing if the picture
    /// is that of the call before; an image that is empty is nothing at all.
    [[nodiscard]] virtual bool render(std::int64_t time, std::optional<OverlayImage>& image) = 0;
};

}  // namespace krv::media
