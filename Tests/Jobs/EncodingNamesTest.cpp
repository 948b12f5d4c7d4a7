#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

namespace krv {
namespace {

TEST(EncodingNames, AFourCharacterCodeHasItsFirstCharacterInTheHighestByte) {
    EXPECT_EQ(codecFromName("avc1"), 0x61766331U);
    EXPECT_EQ(codecFromName("raw"), 0x72617720U) << "shorter codes are padded with spaces";
    EXPECT_EQ(codecFromName(""), std::nullopt);
    EXPECT_EQ(codecFromName("avc12"), std::nullopt);
}

TEST(EncodingNames, CodecsHaveTheNamesThatPeopleType) {
    const auto isAlias = [](const char* name, const char* code) { return codecFromName(name) == codecFromName(code); };
    EXPECT_TRUE(isAlias("h264", "avc1"));
    EXPECT_TRUE(isAlias("HEVC", "hvc1"));
    EXPECT_TRUE(isAlias("h265", "hvc1"));
    EXPECT_TRUE(isAlias("av1", "av01"));
    EXPECT_TRUE(isAlias("vp9", "vp09"));
    EXPECT_TRUE(isAlias("prores", "apcn"));
    EXPECT_TRUE(isAlias("AAC", "mp4a"));
    EXPECT_TRUE(isAlias("opus", "Opus"));
    EXPECT_TRUE(isAlias("flac", "fLaC"));
    EXPECT_TRUE(isAlias("mp3", ".mp3"));
    EXPECT_TRUE(isAlias("pcm", "lpcm"));
}

TEST(EncodingNames, TypesAreNamedInAnyCaseOrByNumber) {
    EXPECT_EQ(encodingTypeFromName("prores 422"), VideoConversion::ProRes422);
    EXPECT_EQ(encodingTypeFromName("H.264"), VideoConversion::H264);
    EXPECT_EQ(encodingTypeFromName("x264"), VideoConversion::H264);
    EXPECT_EQ(encodingTypeFromName("h265"), VideoConversion::HEVC);
    EXPECT_EQ(encodingTypeFromName("ProRes"), VideoConversion::ProRes422);
    EXPECT_EQ(encodingTypeFromName("audio"), VideoConversion::AudioOnly);
    EXPECT_EQ(encodingTypeFromName("6"), VideoConversion::AV1);
    EXPECT_EQ(encodingTypeFromName("8"), std::nullopt);
    EXPECT_EQ(encodingTypeFromName("-1"), std::nullopt);
    EXPECT_EQ(encodingTypeFromName("6 "), std::nullopt);
    EXPECT_EQ(encodingTypeFromName(""), std::nullopt);
}

TEST(EncodingNames, ATypeStandsForItsCodecs) {
    const auto hevc = codecsOfType(VideoConversion::HEVC);
    ASSERT_TRUE(hevc);
    EXPECT_EQ(hevc->video, codecFromName("hvc1"));
    EXPECT_EQ(hevc->audio, codecFromName("mp4a"));
    EXPECT_FALSE(codecsOfType(VideoConversion::Original)) << "it copies";
    EXPECT_EQ(codecsOfType(VideoConversion::AudioOnly)->audio, 0U) << "the container's default";
}

TEST(EncodingNames, TheDefaultTypeSuitsTheContainer) {
    EXPECT_EQ(defaultEncodingType("/a/b.mp4"), VideoConversion::H264);
    EXPECT_EQ(defaultEncodingType("/a/b.unknown"), VideoConversion::H264);
    EXPECT_EQ(defaultEncodingType("b.WebM"), VideoConversion::VP9);
    EXPECT_EQ(defaultEncodingType("b.gif"), VideoConversion::Custom);
    EXPECT_EQ(defaultEncodingType("b.flac"), VideoConversion::AudioOnly);
    EXPECT_TRUE(holdsAudioOnly("b.OGG"));
    EXPECT_FALSE(holdsAudioOnly("b.mkv"));
}

}  // namespace
}  // namespace krv
