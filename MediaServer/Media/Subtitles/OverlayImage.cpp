#include <MediaServer/Media/Subtitles/OverlayImage.h>

namespace krv::media {
namespace {

constexpr int kOpaque = 255;

std::uint8_t scaled(int value, int alpha) noexcept {
    return static_cast<std::uint8_t>((value * alpha + kOpaque / 2) / kOpaque);
}

}  // namespace

Paint Paint::of(int red, int green, int blue, int alpha) noexcept {
    return {scaled(red, alpha), scaled(green, alpha), scaled(blue, alpha), static_cast<std::uint8_t>(alpha)};
}

OverlayImage::OverlayImage(const Box& box)
    : box_(box)
    , pixels_(box.empty() ? 0 : static_cast<std::size_t>(box.width) * static_cast<std::size_t>(box.height)) {}

void OverlayImage::paint(int x, int y, const Paint& over) {
    if (over.alpha == 0 || x < box_.x || y < box_.y || x >= box_.x + box_.width || y >= box_.y + box_.height) {
        return;
    }
    Paint& under = at(x, y);
    const int rest = kOpaque - over.alpha;
    const auto blend = [rest](std::uint8_t above, std::uint8_t below) {
        return static_cast<std::uint8_t>(above + scaled(below, rest));
    };
    under = {blend(over.red, under.red), blend(over.green, under.green), blend(over.blue, under.blue),
             blend(over.alpha, under.alpha)};
}

}  // namespace krv::media
