#pragma once

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// How many pictures of a stream are shown per second: its usual rate if that changes, and a plausible one if
/// nothing is known. Never zero.
[[nodiscard]] AVRational frameRate(const Source& source, const AVStream& stream);

}  // namespace krv::media
