#pragma once

#include <cstdint>
#include <vector>

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
    /// Makes the pictures for a time in microseconds, which do not overlap. Times must not fall. Returns false and
    /// changes nothing if they are those of the call before.
    [[nodiscard]] virtual bool render(std::int64_t time, std::vector<OverlayImage>& images) = 0;
};

}  // namespace krv::media
