#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include <MediaServer/Media/Subtitles/BitmapRenderer.h>

namespace krv::media {
namespace {

/// Subtitles of this width or a smaller one are made for television in standard definition, which has no square pixels.
constexpr int kStandardDefinition = 720;

/// Shapes that differ by less than this are the same.
constexpr double kSameShape = 0.02;

Paint colourOf(const AVSubtitleRect& rectangle, int x, int y) {
    const std::uint8_t index = rectangle.data[0][static_cast<std::ptrdiff_t>(y) * rectangle.linesize[0] + x];
    const std::uint32_t colour = reinterpret_cast<const std::uint32_t*>(rectangle.data[1])[index];
    return Paint::of(static_cast<int>(colour >> 16 & 255), static_cast<int>(colour >> 8 & 255),
                     static_cast<int>(colour & 255), static_cast<int>(colour >> 24));
}

/// The pixels of the source that contribute to one of the target, and how much the first and last of them do.
struct Reach {
    int first;
    std::vector<double> weights;
};

/// Returns the reach of each of the first target pixels. It is at least one source pixel wide, which smooths enlarged
/// bitmaps.
std::vector<Reach> reaches(int source, int target, int count) {
    const double scale = static_cast<double>(source) / target;
    const double half = std::max(scale, 1.0) / 2;
    std::vector<Reach> result;
    for (int i = 0; i < std::min(target, count); ++i) {
        const double middle = (i + 0.5) * scale;
        const double from = std::max(middle - half, 0.0), to = std::min(middle + half, static_cast<double>(source));
        Reach reach{static_cast<int>(from), {}};
        for (int at = reach.first; at < source && at < to; ++at) {
            reach.weights.push_back((std::min(to, at + 1.0) - std::max(from, static_cast<double>(at))) / (to - from));
        }
        result.push_back(std::move(reach));
    }
    return result;
}

void paint(const AVSubtitleRect& rectangle, const Box& box, OverlayImage& image) {
    const Box& all = image.box();
    const auto across = reaches(rectangle.w, box.width, all.x + all.width - box.x);
    const auto down = reaches(rectangle.h, box.height, all.y + all.height - box.y);
    for (std::size_t y = 0; y < down.size(); ++y) {
        for (std::size_t x = 0; x < across.size(); ++x) {
            const Reach &columns = across[x], &rows = down[y];
            double red = 0, green = 0, blue = 0, alpha = 0;
            for (std::size_t i = 0; i < rows.weights.size(); ++i) {
                for (std::size_t j = 0; j < columns.weights.size(); ++j) {
                    const Paint one =
                        colourOf(rectangle, columns.first + static_cast<int>(j), rows.first + static_cast<int>(i));
                    const double weight = rows.weights[i] * columns.weights[j];
                    red += weight * one.red;
                    green += weight * one.green;
                    blue += weight * one.blue;
                    alpha += weight * one.alpha;
                }
            }
            const auto rounded = [](double value) { return static_cast<std::uint8_t>(std::lround(value)); };
            image.paint(box.x + static_cast<int>(x), box.y + static_cast<int>(y),
                        {rounded(red), rounded(green), rounded(blue), rounded(alpha)});
        }
    }
}

}  // namespace

BitmapRenderer::BitmapRenderer(const FrameLayout& layout)
    : layout_(layout) {}

Box BitmapRenderer::placed(const AVSubtitleRect& rectangle, const Subtitle& subtitle) const {
    const bool sideways = layout_.sideways();
    const double sourceWidth = sideways ? layout_.sourceHeight : layout_.sourceWidth;
    const double sourceHeight = sideways ? layout_.sourceWidth : layout_.sourceHeight;
    const double canvasWidth = subtitle.width > 0 ? subtitle.width : sourceWidth;
    const double canvasHeight = subtitle.height > 0 ? subtitle.height : sourceHeight;
    const double width = layout_.uprightWidth(), height = layout_.uprightHeight();
    const double pixel = layout_.uprightPixelShape();
    double across = width / canvasWidth, down = height / canvasHeight;
    const double own = canvasWidth / canvasHeight;
    const bool sameGrid = std::abs(own * sourceHeight / sourceWidth - 1) < kSameShape ||
                          std::abs(own * height / (width * pixel) - 1) < kSameShape ||
                          canvasWidth <= kStandardDefinition;
    if (!sameGrid) {
        // The bars of the frames that they were made for have been cut off.
        down = std::max(width * pixel / canvasWidth, down);
        across = down / pixel;
    }
    const double left = (width - canvasWidth * across) / 2, top = (height - canvasHeight * down) / 2;
    Box box{static_cast<int>(std::lround(left + rectangle.x * across)),
            static_cast<int>(std::lround(top + rectangle.y * down)),
            std::max(1, static_cast<int>(std::lround(rectangle.w * across))),
            std::max(1, static_cast<int>(std::lround(rectangle.h * down)))};
    box.x = std::max(0, std::min(box.x, layout_.uprightWidth() - box.width));
    box.y = std::max(0, std::min(box.y, layout_.uprightHeight() - box.height));
    return box;
}

void BitmapRenderer::add(const Subtitle& subtitle) {
    const std::span rectangles(subtitle.content.rects, subtitle.content.num_rects);
    const auto drawable = [](const AVSubtitleRect& one) {
        return one.type == SUBTITLE_BITMAP && one.w > 0 && one.h > 0 && one.data[0] && one.data[1];
    };
    std::vector<Box> boxes;
    for (const AVSubtitleRect* const one : rectangles) {
        if (drawable(*one)) {
            boxes.push_back(clipped(placed(*one, subtitle), layout_.uprightWidth(), layout_.uprightHeight()));
        }
    }
    Shown shown{subtitle.start, subtitle.end, {}};
    for (const Box& box : disjoint(std::move(boxes))) {
        OverlayImage& image = shown.images.emplace_back(box);
        for (const AVSubtitleRect* const one : rectangles) {
            if (drawable(*one)) {
                paint(*one, placed(*one, subtitle), image);
            }
        }
    }
    shown_.push_back(std::move(shown));
}

bool BitmapRenderer::render(std::int64_t time, std::vector<OverlayImage>& images) {
    bool changed = false;
    while (!shown_.empty() && (shown_.front().end <= time || (shown_.size() > 1 && shown_[1].start <= time))) {
        shown_.pop_front();
        changed |= visible_;
        visible_ = false;
    }
    const bool due = !shown_.empty() && shown_.front().start <= time && !shown_.front().images.empty();
    if (due && !visible_) {
        images = shown_.front().images;
        visible_ = true;
        return true;
    }
    if (changed) {
        images.clear();
    }
    return changed;
}

}  // namespace krv::media
