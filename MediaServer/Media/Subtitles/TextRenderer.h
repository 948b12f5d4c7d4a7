#pragma once

#include <memory>
#include <vector>

#include <MediaServer/Media/Subtitles/Font.h>
#include <MediaServer/Media/Subtitles/FrameLayout.h>
#include <MediaServer/Media/Subtitles/SubtitleRenderer.h>

struct ass_library;
struct ass_renderer;
struct ass_track;

namespace krv::media {

/// Renders text subtitles with their styles. It never looks for fonts on the machine.
class TextRenderer : public SubtitleRenderer {
public:
    /// styles: the header of an ASS file. fonts: those of the movie. fallback: takes the place of a font that is not
    /// among them. The fonts are copied. Throws std::bad_alloc.
    TextRenderer(std::string_view styles, const std::vector<Font>& fonts, const Font& fallback,
                 const FrameLayout& layout);
    ~TextRenderer() override;

    void add(const Subtitle& subtitle) override;
    [[nodiscard]] bool render(std::int64_t time, std::vector<OverlayImage>& images) override;

private:
    struct Free {
        void operator()(ass_library* p) const noexcept;
        void operator()(ass_renderer* p) const noexcept;
        void operator()(ass_track* p) const noexcept;
    };
    void closeOpenLines(std::int64_t time);

    const FrameLayout layout_;
    std::unique_ptr<ass_library, Free> library_;
    std::unique_ptr<ass_renderer, Free> renderer_;
    std::unique_ptr<ass_track, Free> track_;
    std::vector<int> open_;  // numbers of lines that are shown until the next one
    bool rendered_ = false;
};

}  // namespace krv::media
