#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <MediaServer/Media/Subtitles/FrameLayout.h>

namespace krv::media {

/// A colour with its opacity, in 8 bits each, and the colour multiplied by the opacity.
struct Paint {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
    std::uint8_t alpha = 0;

    bool operator==(const Paint&) const = default;
    /// Returns a colour that is not multiplied yet.
    [[nodiscard]] static Paint of(int red, int green, int blue, int alpha) noexcept;
};

/// A picture with transparency to lay over upright frames.
class OverlayImage {
public:
    /// box: the part of the frame outside of which the picture is transparent.
    explicit OverlayImage(const Box& box);

    [[nodiscard]] const Box& box() const noexcept { return box_; }
    /// Return the pixel at a position of the frame, which must lie in the box.
    [[nodiscard]] const Paint& at(int x, int y) const { return pixels_[index(x, y)]; }
    [[nodiscard]] Paint& at(int x, int y) { return pixels_[index(x, y)]; }
    /// Lays a colour over the pixel at a position of the frame. Ignores positions outside the box.
    void paint(int x, int y, const Paint& over);

private:
    [[nodiscard]] std::size_t index(int x, int y) const noexcept {
        return static_cast<std::size_t>(y - box_.y) * static_cast<std::size_t>(box_.width) +
               static_cast<std::size_t>(x - box_.x);
    }

    Box box_;
    std::vector<Paint> pixels_;
};

}  // namespace krv::media
