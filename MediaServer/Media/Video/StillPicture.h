#pragma once

#include <cstdint>
#include <vector>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Width and height in square pixels.
struct Extent {
    int width = 0;
    int height = 0;
    friend bool operator==(const Extent&, const Extent&) = default;
};

/// Returns the size at which a frame of this stream is shown: upright and in square pixels.
[[nodiscard]] Extent displayExtent(const AVStream& stream, int codedWidth, int codedHeight);

/// Returns the largest extent of the same shape that fits into a box and is not larger than the picture itself. A side
/// of the box that is 0 does not limit it. Both sides of the result are at least 1. Pure.
[[nodiscard]] Extent fittedInto(Extent picture, double boxWidth, double boxHeight) noexcept;

/// Encodes a decoded frame of this stream as JPEG: upright, in square pixels, HDR tone-mapped, in the colours that JPEG
/// readers expect. The size is that of fittedInto(). Throws Failure with InternalError.
[[nodiscard]] std::vector<std::uint8_t> encodeJPEG(const AVStream& stream, FramePtr frame, double boxWidth,
                                                   double boxHeight);

}  // namespace krv::media
