#pragma once

#include <deque>
#include <vector>

#include <MediaServer/Media/Subtitles/FrameLayout.h>
#include <MediaServer/Media/Subtitles/SubtitleRenderer.h>

namespace krv::media {

/// Scales bitmap subtitles to the frames. Those that were made for frames of another shape keep their own shape and are
/// moved into the frame.
class BitmapRenderer : public SubtitleRenderer {
public:
    explicit BitmapRenderer(const FrameLayout& layout);

    void add(const Subtitle& subtitle) override;
    [[nodiscard]] bool render(std::int64_t time, std::vector<OverlayImage>& images) override;

private:
    struct Shown {
        std::int64_t start;
        std::int64_t end;
        std::vector<OverlayImage> images;
    };
    [[nodiscard]] Box placed(const AVSubtitleRect& rectangle, const Subtitle& subtitle) const;

    const FrameLayout layout_;
    std::deque<Shown> shown_;  // in order; the first one may be on the frame now
    bool visible_ = false;
};

}  // namespace krv::media
