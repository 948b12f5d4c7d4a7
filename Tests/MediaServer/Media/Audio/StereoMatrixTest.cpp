#include <gmock/gmock.h>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Audio/StereoMatrix.h>

namespace krv::media {
namespace {

constexpr double k3dB = 0.70710678;

/// Checks the matrix of a layout, given by its name: the left row, then the right row.
void expectMatrix(const char* name, const std::vector<double>& expected) {
    ChannelLayout layout;
    AVChannelLayout parsed{};
    ASSERT_EQ(av_channel_layout_from_string(&parsed, name), 0) << name;
    layout.assign(parsed);
    av_channel_layout_uninit(&parsed);
    EXPECT_THAT(stereoMatrix(layout.get()), testing::Pointwise(testing::DoubleNear(1e-6), expected)) << name;
}

TEST(StereoMatrix, KeepsLeftAndRight) {
    expectMatrix("stereo", {1, 0, 0, 1});
}

TEST(StereoMatrix, SplitsTheCentreBetweenBothSides) {
    expectMatrix("mono", {k3dB, k3dB});
    expectMatrix("3.0", {1, 0, k3dB, 0, 1, k3dB});
}

TEST(StereoMatrix, LowersTheSurroundsAndDropsTheLFE) {
    // Front left, front right, front centre, low frequencies, then the surrounds.
    expectMatrix("5.1", {1, 0, k3dB, 0, k3dB, 0, 0, 1, k3dB, 0, 0, k3dB});
    expectMatrix("5.1(side)", {1, 0, k3dB, 0, k3dB, 0, 0, 1, k3dB, 0, 0, k3dB});
    expectMatrix("7.1", {1, 0, k3dB, 0, k3dB, 0, k3dB, 0, 0, 1, k3dB, 0, 0, k3dB, 0, k3dB});
}

TEST(StereoMatrix, SplitsACentreSurroundBetweenBothSides) {
    expectMatrix("6.1", {1, 0, k3dB, 0, 0.5, k3dB, 0, 0, 1, k3dB, 0, 0.5, 0, k3dB});
}

TEST(StereoMatrix, KeepsASingleSideOnItsSide) {
    expectMatrix("FL", {1, 0});
    expectMatrix("FR", {0, 1});
}

TEST(StereoMatrix, DistinguishesStereoFromOtherPairs) {
    const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    const AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    const AVChannelLayout backs = AV_CHANNEL_LAYOUT_MASK(2, AV_CH_BACK_LEFT | AV_CH_BACK_RIGHT);
    const AVChannelLayout unspecified{AV_CHANNEL_ORDER_UNSPEC, 2, {0}, nullptr};
    EXPECT_TRUE(isStereo(stereo));
    EXPECT_TRUE(isStereo(unspecified));
    EXPECT_FALSE(isStereo(mono));
    EXPECT_FALSE(isStereo(backs));
}

}  // namespace
}  // namespace krv::media
