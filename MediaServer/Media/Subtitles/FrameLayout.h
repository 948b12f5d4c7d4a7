#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// A rectangle in pixels.
struct Box {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    [[nodiscard]] bool empty() const noexcept { return width <= 0 || height <= 0; }
};

/// Returns the smallest box around both. Ignores one that is empty.
[[nodiscard]] Box around(const Box& a, const Box& b) noexcept;
/// Returns the part of a box that lies in a frame.
[[nodiscard]] Box clipped(const Box& box, int width, int height) noexcept;

/// Returns boxes that do not overlap and that contain all these, except for empty ones. There are few of them.
[[nodiscard]] std::vector<Box> disjoint(std::vector<Box> boxes);

/// How frames are stored, and how a viewer sees them.
struct FrameLayout {
    int width = 0;                ///< as stored, in pixels
    int height = 0;               ///< as stored
    int quarterTurns = 0;         ///< clockwise rotation with which a viewer sees the frames upright
    bool mirrored = false;        ///< after that they are mirrored: vertically, or horizontally if quarterTurns is odd
    AVRational pixelShape{1, 1};  ///< width to height of stored pixels
    int sourceWidth = 0;          ///< of the frames before they were scaled, as stored
    int sourceHeight = 0;
    AVPixelFormat pixels = AV_PIX_FMT_NONE;
    AVColorSpace space = AVCOL_SPC_UNSPECIFIED;  ///< known, except for RGB
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;

    [[nodiscard]] bool sideways() const noexcept { return quarterTurns % 2 != 0; }
    [[nodiscard]] int uprightWidth() const noexcept { return sideways() ? height : width; }
    [[nodiscard]] int uprightHeight() const noexcept { return sideways() ? width : height; }
    /// Returns the width of an upright pixel, in units of its height.
    [[nodiscard]] double uprightPixelShape() const noexcept;

    struct Point {
        int x;
        int y;
    };
    /// Convert the position of a pixel.
    [[nodiscard]] Point upright(Point stored) const noexcept;
    [[nodiscard]] Point stored(Point upright) const noexcept;
    /// Returns where a box of the upright frame is stored.
    [[nodiscard]] Box stored(const Box& upright) const noexcept;
};

}  // namespace krv::media
