#include <cmath>
#include <numbers>

#include <MediaServer/Media/Audio/StereoMatrix.h>

namespace krv::media {
namespace {

constexpr double kMinus3dB = std::numbers::sqrt2 / 2;

/// A channel behind or above the centre is lowered like all channels that are not in front, and then split between both
/// sides.
constexpr double kSharedSurround = kMinus3dB * kMinus3dB;

/// Halfway between the centre and a side, with constant total power.
constexpr double kNear = 0.92387953251128674;
constexpr double kFar = 0.38268343236508978;

struct Gains {
    double left;
    double right;
};

Gains gainsOf(AVChannel channel) {
    switch (channel) {
    case AV_CHAN_FRONT_LEFT:
    case AV_CHAN_STEREO_LEFT:
    case AV_CHAN_WIDE_LEFT:
        return {1, 0};
    case AV_CHAN_FRONT_RIGHT:
    case AV_CHAN_STEREO_RIGHT:
    case AV_CHAN_WIDE_RIGHT:
        return {0, 1};
    case AV_CHAN_FRONT_LEFT_OF_CENTER:
        return {kNear, kFar};
    case AV_CHAN_FRONT_RIGHT_OF_CENTER:
        return {kFar, kNear};
    case AV_CHAN_BACK_LEFT:
    case AV_CHAN_SIDE_LEFT:
    case AV_CHAN_TOP_FRONT_LEFT:
    case AV_CHAN_TOP_BACK_LEFT:
    case AV_CHAN_TOP_SIDE_LEFT:
    case AV_CHAN_SURROUND_DIRECT_LEFT:
    case AV_CHAN_BOTTOM_FRONT_LEFT:
        return {kMinus3dB, 0};
    case AV_CHAN_BACK_RIGHT:
    case AV_CHAN_SIDE_RIGHT:
    case AV_CHAN_TOP_FRONT_RIGHT:
    case AV_CHAN_TOP_BACK_RIGHT:
    case AV_CHAN_TOP_SIDE_RIGHT:
    case AV_CHAN_SURROUND_DIRECT_RIGHT:
    case AV_CHAN_BOTTOM_FRONT_RIGHT:
        return {0, kMinus3dB};
    case AV_CHAN_BACK_CENTER:
    case AV_CHAN_TOP_CENTER:
    case AV_CHAN_TOP_FRONT_CENTER:
    case AV_CHAN_TOP_BACK_CENTER:
    case AV_CHAN_BOTTOM_FRONT_CENTER:
        return {kSharedSurround, kSharedSurround};
    case AV_CHAN_LOW_FREQUENCY:
    case AV_CHAN_LOW_FREQUENCY_2:
        return {0, 0};
    default:  // the centre and unknown channels
        return {kMinus3dB, kMinus3dB};
    }
}

}  // namespace

std::vector<double> stereoMatrix(const AVChannelLayout& layout) {
    const auto channels = static_cast<std::size_t>(layout.nb_channels);
    std::vector<double> matrix(2 * channels);
    for (std::size_t i = 0; i < channels; ++i) {
        const Gains gains = gainsOf(av_channel_layout_channel_from_index(&layout, static_cast<unsigned>(i)));
        matrix[i] = gains.left;
        matrix[channels + i] = gains.right;
    }
    return matrix;
}

bool isStereo(const AVChannelLayout& layout) {
    if (layout.nb_channels != 2) {
        return false;
    }
    return layout.order == AV_CHANNEL_ORDER_UNSPEC || stereoMatrix(layout) == std::vector<double>{1, 0, 0, 1};
}

}  // namespace krv::media
