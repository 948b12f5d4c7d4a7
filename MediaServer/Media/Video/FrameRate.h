#pragma once

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Returns the frame rate of a stream: the usual one if it varies, and a plausible one if it is unknown. Never zero.
[[nodiscard]] AVRational frameRate(const Source& source, const AVStream& stream);

}  // namespace krv::media
