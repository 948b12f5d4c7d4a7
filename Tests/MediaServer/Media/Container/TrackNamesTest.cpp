#include <gtest/gtest.h>

#include <MediaServer/Media/Container/TrackNames.h>

namespace krv::media::test {
namespace {

TEST(DisplayName, IsTheCommonName) {
    EXPECT_EQ(displayName(AV_CODEC_ID_H264), "H.264");
    EXPECT_EQ(displayName(AV_CODEC_ID_PCM_S24LE), "PCM");
    EXPECT_EQ(displayName(AV_CODEC_ID_SPEEX), "speex");
}

}  // namespace
}  // namespace krv::media::test
