#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <span>

#include <ass/ass.h>

#include <MediaServer/Media/Subtitles/TextRenderer.h>

namespace krv::media {
namespace {

/// Glyphs, and megabytes of bitmaps, that the renderer keeps.
constexpr int kCachedGlyphs = 4000;
constexpr int kCachedMegabytes = 32;

/// How long a line is shown whose end is not known yet, in milliseconds: longer than any movie.
constexpr long long kOpenDuration = 3'600'000'000;

long long milliseconds(std::int64_t microseconds) {
    return av_rescale(microseconds, 1000, AV_TIME_BASE);
}

std::string mutableCopy(std::string_view text) {
    return std::string(text);
}

/// Paints what the renderer made, as far as it lies in the box of the image.
void paint(const ASS_Image& part, OverlayImage& image) {
    const Box& box = image.box();
    const int left = std::max(part.dst_x, box.x), right = std::min(part.dst_x + part.w, box.x + box.width);
    const int top = std::max(part.dst_y, box.y), bottom = std::min(part.dst_y + part.h, box.y + box.height);
    const auto red = static_cast<int>(part.color >> 24), green = static_cast<int>(part.color >> 16 & 255),
               blue = static_cast<int>(part.color >> 8 & 255);
    const int opacity = 255 - static_cast<int>(part.color & 255);
    for (int y = top; y < bottom; ++y) {
        const unsigned char* const row = part.bitmap + static_cast<std::ptrdiff_t>(y - part.dst_y) * part.stride;
        for (int x = left; x < right; ++x) {
            image.paint(x, y, Paint::of(red, green, blue, row[x - part.dst_x] * opacity / 255));
        }
    }
}

}  // namespace

void TextRenderer::Free::operator()(ass_library* p) const noexcept {
    ass_library_done(p);
}
void TextRenderer::Free::operator()(ass_renderer* p) const noexcept {
    ass_renderer_done(p);
}
void TextRenderer::Free::operator()(ass_track* p) const noexcept {
    ass_free_track(p);
}

TextRenderer::TextRenderer(std::string_view styles, const std::vector<Font>& fonts, const Font& fallback,
                           const FrameLayout& layout)
    : layout_(layout)
    , library_(notNull(ass_library_init())) {
    ass_set_message_cb(
        library_.get(), [](int, const char*, va_list, void*) {}, nullptr);
    ass_set_extract_fonts(library_.get(), 1);
    const auto add = [this](const Font& font) {
        if (!font.data.empty()) {
            ass_add_font(library_.get(), font.family.c_str(), font.data.data(), static_cast<int>(font.data.size()));
        }
    };
    add(fallback);
    for (const Font& font : fonts) {
        add(font);
    }
    track_.reset(notNull(ass_new_track(library_.get())));
    std::string header = mutableCopy(styles);
    ass_process_codec_private(track_.get(), header.data(), static_cast<int>(header.size()));
    ass_set_check_readorder(track_.get(), 0);
    renderer_.reset(notNull(ass_renderer_init(library_.get())));
    ass_set_frame_size(renderer_.get(), layout.uprightWidth(), layout.uprightHeight());
    ass_set_storage_size(renderer_.get(), layout.uprightWidth(), layout.uprightHeight());
    ass_set_pixel_aspect(renderer_.get(), layout.uprightPixelShape());
    ass_set_cache_limits(renderer_.get(), kCachedGlyphs, kCachedMegabytes);
    ass_set_fonts(renderer_.get(), nullptr, fallback.family.empty() ? nullptr : fallback.family.c_str(),
                  ASS_FONTPROVIDER_NONE, nullptr, 1);
}

TextRenderer::~TextRenderer() = default;

void TextRenderer::add(const Subtitle& subtitle) {
    closeOpenLines(milliseconds(subtitle.start));
    const bool open = subtitle.end == Subtitle::kOpen;
    const long long start = milliseconds(subtitle.start);
    const long long duration = open ? kOpenDuration : milliseconds(subtitle.end) - start;
    for (const AVSubtitleRect* const one : std::span(subtitle.content.rects, subtitle.content.num_rects)) {
        if (one->type != SUBTITLE_ASS || !one->ass) {
            continue;
        }
        std::string line = mutableCopy(one->ass);
        const int before = track_->n_events;
        ass_process_chunk(track_.get(), line.data(), static_cast<int>(line.size()), start, duration);
        if (open && track_->n_events > before) {
            open_.push_back(before);
        }
    }
}

void TextRenderer::closeOpenLines(std::int64_t time) {
    for (const int line : open_) {
        ASS_Event& event = track_->events[line];
        event.Duration = std::max<long long>(0, time - event.Start);
    }
    open_.clear();
}

bool TextRenderer::render(std::int64_t time, std::vector<OverlayImage>& images) {
    int change = 0;
    const ASS_Image* const parts = ass_render_frame(renderer_.get(), track_.get(), milliseconds(time), &change);
    if (change == 0 && rendered_) {
        return false;
    }
    rendered_ = true;
    std::vector<Box> boxes;
    for (const ASS_Image* part = parts; part; part = part->next) {
        boxes.push_back(
            clipped({part->dst_x, part->dst_y, part->w, part->h}, layout_.uprightWidth(), layout_.uprightHeight()));
    }
    images.clear();
    for (const Box& box : disjoint(std::move(boxes))) {
        images.emplace_back(box);
    }
    for (const ASS_Image* part = parts; part; part = part->next) {
        for (OverlayImage& image : images) {
            paint(*part, image);
        }
    }
    return true;
}

}  // namespace krv::media
