#pragma once

#include <vector>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// How much of each channel of a layout goes into the left and the right channel of a stereo mix, after ITU-R
/// BS.775: first all factors of the left, then all of the right. Nothing is scaled down for the sum to stay
/// within bounds, so that what was said is as loud afterwards as before; whoever adds has to limit. Channels
/// for low effects are left out. Pure.
[[nodiscard]] std::vector<double> stereoMatrix(const AVChannelLayout& layout);

/// Whether a layout is the left and the right channel and nothing else.
[[nodiscard]] bool isStereo(const AVChannelLayout& layout);

}  // namespace krv::media
