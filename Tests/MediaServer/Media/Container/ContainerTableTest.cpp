#include <gmock/gmock.h>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

class EveryContainer : public testing::TestWithParam<const char*> {};

TEST_P(EveryContainer, IsFoundByItsExtensionInAnyCase) {
    std::string upper = GetParam();
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(c));
    }
    EXPECT_EQ(containerForPath(std::string("/movies.d/a.b.") + GetParam()).extension, GetParam());
    EXPECT_EQ(containerForPath("x." + upper).extension, GetParam());
}

TEST_P(EveryContainer, HasAMuxerAndHoldsItsDefaultCodecs) {
    const Container& container = containerForPath(std::string("x.") + GetParam());
    EXPECT_NE(av_guess_format(container.muxer, nullptr, nullptr), nullptr);
    if (container.defaultAudio != 0) {
        EXPECT_TRUE(container.holds(codecForFourCC(container.defaultAudio, AVMEDIA_TYPE_AUDIO).id));
    }
    if (container.defaultVideo != 0) {
        EXPECT_TRUE(container.holds(codecForFourCC(container.defaultVideo, AVMEDIA_TYPE_VIDEO).id));
    }
    if (container.textSubtitles != AV_CODEC_ID_NONE) {
        EXPECT_TRUE(container.holds(container.textSubtitles));
    }
}

INSTANTIATE_TEST_SUITE_P(ContainerTable, EveryContainer,
                         testing::Values("mov", "mp4", "m4v", "m4a", "mkv", "webm", "mka", "wav", "mp3", "flac", "ogg",
                                         "avi", "ts", "gif"));

TEST(ContainerTable, OtherExtensionsAreUnsupported) {
    for (const std::string extension : {"flv", "mp"}) {
        try {
            (void)containerForPath("/tmp/movie." + extension);
            ADD_FAILURE() << extension;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, FailureCause::UnsupportedContainer);
            EXPECT_EQ(failure.subject, extension);
        }
    }
    try {
        (void)containerForPath("/tmp/folder.mp4/movie");
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::NoContainer);
    }
}

TEST(ContainerTable, AudioContainersHoldNoVideo) {
    for (const char* path : {"a.m4a", "a.mka", "a.wav", "a.mp3", "a.flac"}) {
        EXPECT_FALSE(containerForPath(path).holds(AV_CODEC_ID_H264)) << path;
    }
}

}  // namespace
}  // namespace krv::media
