#pragma once

#include <vector>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns the factors with which the channels of a layout are mixed down to stereo, after ITU-R BS.775. All factors
/// for the left channel come first, then all for the right one. They are not scaled down to keep the sum within bounds,
/// because speech must stay as loud as it was. The caller has to limit the sum. Low-frequency effects are dropped.
/// Pure.
[[nodiscard]] std::vector<double> stereoMatrix(const AVChannelLayout& layout);

/// Returns whether a layout consists of the left and the right channel.
[[nodiscard]] bool isStereo(const AVChannelLayout& layout);

}  // namespace krv::media
