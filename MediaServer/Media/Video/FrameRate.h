#pragma once

#include <optional>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Returns the average frame rate of a stream in frames per second, or else its base frame rate. Empty if neither is
/// plausible. Pure.
[[nodiscard]] std::optional<double> averageRate(const AVStream& stream);

/// Returns the frame rate of a stream: the usual one if it varies, and a plausible one if it is unknown. Never zero.
[[nodiscard]] AVRational frameRate(const Source& source, const AVStream& stream);

/// Returns a constant frame rate at which, if possible, every frame of a stream has its exact place. Never zero.
[[nodiscard]] AVRational constantFrameRate(const Source& source, const AVStream& stream);

/// Returns a requested rate as a fraction. 29.97 means 30000/1001.
[[nodiscard]] AVRational rationalRate(double fps);

}  // namespace krv::media
