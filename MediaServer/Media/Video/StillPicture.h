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

/// The size at which a picture of this stream is shown: upright, with the shape of its pixels applied.
[[nodiscard]] Extent displayExtent(const AVStream& stream, int codedWidth, int codedHeight);

/// The largest extent of the same shape that fits into a box, and is not larger than the picture itself. A side of the
/// box that is 0 is free. Both sides of the result are at least 1. Pure.
[[nodiscard]] Extent fittedInto(Extent picture, double boxWidth, double boxHeight) noexcept;

/// A decoded picture of this stream as JPEG: upright, in square pixels, HDR brought to what an ordinary screen shows,
/// in the colours that JPEG readers expect. Fitted as fittedInto() says. Throws Failure when it cannot be made.
[[nodiscard]] std::vector<std::uint8_t> encodeJPEG(const AVStream& stream, FramePtr frame, double boxWidth,
                                                   double boxHeight);

}  // namespace krv::media
