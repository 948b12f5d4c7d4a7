#include <algorithm>

#include <MediaServer/Media/Subtitles/FrameLayout.h>

namespace krv::media {
namespace {

/// Comparing more boxes than this costs more than it saves.
constexpr std::size_t kMostCompared = 64;

bool overlap(const Box& a, const Box& b) noexcept {
    return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

}  // namespace

Box around(const Box& a, const Box& b) noexcept {
    if (a.empty() || b.empty()) {
        return a.empty() ? b : a;
    }
    const int x = std::min(a.x, b.x), y = std::min(a.y, b.y);
    return {x, y, std::max(a.x + a.width, b.x + b.width) - x, std::max(a.y + a.height, b.y + b.height) - y};
}

Box clipped(const Box& box, int width, int height) noexcept {
    const int x = std::clamp(box.x, 0, width), y = std::clamp(box.y, 0, height);
    return {x, y, std::clamp(box.x + box.width, 0, width) - x, std::clamp(box.y + box.height, 0, height) - y};
}

std::vector<Box> disjoint(std::vector<Box> boxes) {
    std::erase_if(boxes, [](const Box& box) { return box.empty(); });
    if (boxes.size() > kMostCompared) {
        Box all;
        for (const Box& box : boxes) {
            all = around(all, box);
        }
        return {all};
    }
    for (std::size_t i = 0; i < boxes.size();) {
        const auto next = boxes.begin() + static_cast<std::ptrdiff_t>(i) + 1;
        const auto other = std::find_if(next, boxes.end(), [&](const Box& box) { return overlap(boxes[i], box); });
        if (other == boxes.end()) {
            ++i;
            continue;
        }
        boxes[i] = around(boxes[i], *other);
        boxes.erase(other);
        i = 0;  // the larger box may overlap earlier ones
    }
    return boxes;
}

double FrameLayout::uprightPixelShape() const noexcept {
    const double shape = pixelShape.num > 0 && pixelShape.den > 0 ? av_q2d(pixelShape) : 1;
    return sideways() ? 1 / shape : shape;
}

FrameLayout::Point FrameLayout::upright(Point at) const noexcept {
    Point turned = at;
    if (quarterTurns == 1) {
        turned = {height - 1 - at.y, at.x};
    } else if (quarterTurns == 2) {
        turned = {width - 1 - at.x, height - 1 - at.y};
    } else if (quarterTurns == 3) {
        turned = {at.y, width - 1 - at.x};
    }
    if (!mirrored) {
        return turned;
    }
    return sideways() ? Point{uprightWidth() - 1 - turned.x, turned.y}
                      : Point{turned.x, uprightHeight() - 1 - turned.y};
}

FrameLayout::Point FrameLayout::stored(Point at) const noexcept {
    Point turned = at;
    if (mirrored) {
        turned = sideways() ? Point{uprightWidth() - 1 - at.x, at.y} : Point{at.x, uprightHeight() - 1 - at.y};
    }
    if (quarterTurns == 1) {
        return {turned.y, height - 1 - turned.x};
    }
    if (quarterTurns == 2) {
        return {width - 1 - turned.x, height - 1 - turned.y};
    }
    return quarterTurns == 3 ? Point{width - 1 - turned.y, turned.x} : turned;
}

Box FrameLayout::stored(const Box& box) const noexcept {
    const Point a = stored(Point{box.x, box.y});
    const Point b = stored(Point{box.x + box.width - 1, box.y + box.height - 1});
    return {std::min(a.x, b.x), std::min(a.y, b.y), std::abs(a.x - b.x) + 1, std::abs(a.y - b.y) + 1};
}

}  // namespace krv::media
