#include <gmock/gmock.h>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>

namespace krv::media {
namespace {

constexpr AVMediaType kVideo = AVMEDIA_TYPE_VIDEO;
constexpr AVMediaType kAudio = AVMEDIA_TYPE_AUDIO;

TEST(CodecTable, AFourCharacterCodeHasItsFirstCharacterInTheHighestByte) {
    EXPECT_EQ(fourCC("avc1"), 0x61766331U);
}

class EveryCodec : public testing::TestWithParam<std::pair<std::uint32_t, AVMediaType>> {};

TEST_P(EveryCodec, HasAnEncoderThatIsInstalledAndInTheTable) {
    const Codec& codec = codecForFourCC(GetParam().first, GetParam().second);
    ASSERT_NE(codec.encoders.front(), nullptr);
    const std::string name = codec.encoders.front();
    EXPECT_NE(avcodec_find_encoder_by_name(name == "pcm" ? "pcm_s16le" : name.c_str()), nullptr) << name;
    EXPECT_NO_THROW((void)encoderNamed(name));
}

TEST_P(EveryCodec, IsRefusedAsTheOtherKind) {
    try {
        (void)codecForFourCC(GetParam().first, GetParam().second == kVideo ? kAudio : kVideo);
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::WrongKindOfCodec);
        EXPECT_EQ(failure.subject, fourCCText(GetParam().first));
        EXPECT_EQ(failure.detail, GetParam().second == kVideo ? "an audio codec" : "a video codec");
    }
}

INSTANTIATE_TEST_SUITE_P(CodecTable, EveryCodec,
                         testing::Values(std::pair{fourCC("avc1"), kVideo}, std::pair{fourCC("hvc1"), kVideo},
                                         std::pair{fourCC("av01"), kVideo}, std::pair{fourCC("vp09"), kVideo},
                                         std::pair{fourCC("apcn"), kVideo}, std::pair{fourCC("apch"), kVideo},
                                         std::pair{fourCC("ap4h"), kVideo}, std::pair{fourCC("jpeg"), kVideo},
                                         std::pair{fourCC("mp4v"), kVideo}, std::pair{fourCC("mp4a"), kAudio},
                                         std::pair{fourCC("alac"), kAudio}, std::pair{fourCC("lpcm"), kAudio},
                                         std::pair{fourCC("ac-3"), kAudio}, std::pair{fourCC("Opus"), kAudio},
                                         std::pair{fourCC("fLaC"), kAudio}, std::pair{fourCC(".mp3"), kAudio}));

TEST(CodecTable, UnknownCodesAreNamed) {
    try {
        (void)codecForFourCC(fourCC("XVID"), kVideo);
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::UnsupportedCodec);
        EXPECT_EQ(failure.subject, "XVID");
    }
    try {
        (void)codecForFourCC(7, kVideo);
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::UnsupportedCodec);
        EXPECT_EQ(failure.subject, "0x00000007");
    }
}

TEST(CodecTable, QualityScalesFromWorstToBestAndZeroIsTheStandard) {
    const QualityScale& crf = encoderNamed("libx264").quality;
    EXPECT_DOUBLE_EQ(scaledQuality(crf, 0), crf.standard);
    EXPECT_DOUBLE_EQ(scaledQuality(crf, 1), crf.best);
    EXPECT_DOUBLE_EQ(scaledQuality(crf, 0.5), (crf.worst + crf.best) / 2);
    EXPECT_GT(scaledQuality(crf, 0.1), scaledQuality(crf, 0.9));  // a higher factor is a lower quality
}

}  // namespace
}  // namespace krv::media
