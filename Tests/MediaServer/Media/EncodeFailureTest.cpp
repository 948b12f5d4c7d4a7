#include <csignal>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"

namespace krv::media::test {
namespace {

using testing::HasSubstr;

constexpr int kUnusable = 4;
constexpr int kUnwritable = 5;
constexpr int kUnsupported = 6;
constexpr int kBadArgument = 9;

struct Bad {
    const char* what;
    Conversion conversion;
    int code;
    const char* reason;  ///< part of it
};

void PrintTo(const Bad& bad, std::ostream* out) {
    *out << bad.what;
}

class BadConversions : public testing::TestWithParam<Bad> {};

TEST_P(BadConversions, FailWithTheirCodeAndNameTheFileAndTheCause) {
    const Bad& bad = GetParam();
    const auto failure = failureOf(bad.conversion);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code(), bad.code) << failure->what();
    EXPECT_THAT(failure->reason(), HasSubstr(bad.reason));
    if (bad.code == kUnusable) {
        EXPECT_EQ(failure->path(), bad.conversion.source);
    } else {
        EXPECT_THAT(failure->path(), testing::EndsWith(bad.conversion.extension));
    }
    const std::string name = failure->path().substr(failure->path().rfind('/') + 1);
    EXPECT_THAT(failure->description(), HasSubstr(name));
}

Conversion from(const char* name, std::int32_t type = 1) {
    return {.source = testMedia(name), .type = type};
}

Conversion with(const VideoRequest& video, const char* extension = "mp4") {
    return {.source = testMedia("silent.mp4"), .extension = extension, .type = 3, .video = video};
}

Conversion with(const AudioRequest& audio, const char* extension = "mp4") {
    return {.source = testMedia("sound.wav"), .extension = extension, .type = 3, .audio = audio};
}

Conversion into(const char* extension, std::int32_t type, bool flatten = false) {
    return {.source = testMedia("plain.mov"), .extension = extension, .type = type, .flatten = flatten};
}

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

INSTANTIATE_TEST_SUITE_P(Sources, BadConversions,
                         testing::Values(Bad{"empty", from("empty.mov"), kUnusable, "empty"},
                                         Bad{"text", from("text.mp4"), kUnusable, "moov"},
                                         Bad{"textCopied", from("text.mp4", 0), kUnusable, "moov"},
                                         Bad{"noIndex", from("headless.mp4"), kUnusable, "moov atom not found"},
                                         Bad{"folder", {.source = testing::TempDir()}, kUnusable, "folder"},
                                         Bad{"playlist", from("playlist.m3u8"), kUnusable, "refers to other files"},
                                         Bad{"concatenation", from("concat.ffconcat"), kUnusable,
                                             "refers to other files"},
                                         Bad{"subtitlesOnly", from("lines.srt"), kUnusable, "neither video nor audio"},
                                         Bad{"noSoundForSoundOnly", from("silent.mp4", 7), kUnusable, "no audio"},
                                         Bad{"notAFile", {.source = "/dev/null"}, kUnusable, "not a file"}));

INSTANTIATE_TEST_SUITE_P(
    Requests, BadConversions,
    testing::Values(Bad{"container", into("avi", 1), kUnsupported, "“avi”"},
                    Bad{"type", into("mp4", 8), kUnsupported, "8"},
                    Bad{"negativeType", into("mp4", -1), kUnsupported, "-1"},
                    Bad{"typeInContainer", into("webm", 1), kUnsupported, "H.264"},
                    Bad{"typeInSoundContainer", into("wav", 1), kUnsupported, "“wav”"},
                    Bad{"soundOfTypeInContainer",
                        {.source = testMedia("sound.wav"), .extension = "flac", .type = 1},
                        kUnsupported,
                        "AAC"},
                    Bad{"ProResInMP4", into("mp4", 4), kUnsupported, "ProRes"},
                    Bad{"flattenInContainer", into("webm", 0, true), kUnsupported, "h264"},
                    Bad{"videoCodec", with(VideoRequest{fourCC("XVID"), 0, 0, ""}), kUnsupported, "XVID"},
                    Bad{"audioCodecForVideo", with(VideoRequest{fourCC("mp4a"), 0, 0, ""}), kUnsupported, "mp4a"},
                    Bad{"audioCodec", with(AudioRequest{fourCC("wma2"), 0, ""}), kUnsupported, "wma2"},
                    Bad{"codecInContainer", with(VideoRequest{fourCC("avc1"), 0, 0, ""}, "webm"), kUnsupported, "webm"},
                    Bad{"audioCodecInContainer", with(AudioRequest{fourCC("lpcm"), 0, ""}, "mp3"), kUnsupported, "PCM"},
                    Bad{"videoQualityNaN", with(VideoRequest{0, kNaN, 0, ""}), kUnsupported, "quality"},
                    Bad{"videoQualityNegative", with(VideoRequest{0, -0.1F, 0, ""}), kUnsupported, "quality"},
                    Bad{"videoQualityTooHigh", with(VideoRequest{0, 1.1F, 0, ""}), kUnsupported, "quality"},
                    Bad{"audioQualityInfinite", with(AudioRequest{0, kInfinity, ""}), kUnsupported, "quality"},
                    Bad{"rateNaN", with(VideoRequest{0, 0, kNaN, ""}), kUnsupported, "frame rate"},
                    Bad{"rateNegative", with(VideoRequest{0, 0, -25, ""}), kUnsupported, "frame rate"},
                    Bad{"rateAbsurd", with(VideoRequest{0, 0, 1e9F, ""}), kUnsupported, "frame rate"}));

INSTANTIATE_TEST_SUITE_P(
    Settings, BadConversions,
    testing::Values(Bad{"unknownKey", with(VideoRequest{0, 0, 0, "sharpness=5"}), kUnsupported, "sharpness"},
                    Bad{"unknownAudioKey", with(AudioRequest{0, 0, "loudness=5"}), kUnsupported, "loudness"},
                    Bad{"keyOfTheOtherKind", with(AudioRequest{0, 0, "width=64"}), kUnsupported, "width"},
                    Bad{"videoOptionForAudio", with(AudioRequest{0, 0, "bf=2"}), kUnsupported, "bf"},
                    Bad{"badPreset", with(VideoRequest{0, 0, 0, "preset=warp"}), kUnsupported, "preset"},
                    Bad{"badNumber", with(VideoRequest{0, 0, 0, "crf=abc"}), kUnsupported, "crf"},
                    Bad{"numberNaN", with(VideoRequest{0, 0, 0, "crf=nan"}), kUnsupported, "crf"},
                    Bad{"pixelFormat", with(VideoRequest{0, 0, 0, "pixelFormat=rgb24"}), kUnsupported, "rgb24"},
                    Bad{"presetForNone", with(AudioRequest{0, 0, "preset=fast"}), kUnsupported, "preset"},
                    Bad{"bitRateForLossless", with(AudioRequest{fourCC("fLaC"), 0, "bitrate=64000"}, "flac"),
                        kUnsupported, "bitrate"},
                    Bad{"rateForCodec", with(AudioRequest{fourCC(".mp3"), 0, "sampleRate=96000"}, "mp3"), kUnsupported,
                        "sampleRate"},
                    Bad{"channelsForCodec", with(AudioRequest{fourCC(".mp3"), 0, "channels=6"}, "mp3"), kUnsupported,
                        "channels"},
                    Bad{"notUTF8", with(VideoRequest{0, 0, 0, "preset=\xff"}), kBadArgument, "UTF-8"}));

TEST(EncodeFailure, AFullDiskIsAnUnwritableDestination) {
    // A limit on the size of files stands for a disk without space.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    for (const std::int32_t type : {0, 1}) {
        const rlimit small{20'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const auto failure = failureOf({.source = testMedia("plain.mov"), .type = type});
        setrlimit(RLIMIT_FSIZE, &before);
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->code(), kUnwritable) << failure->what();
        EXPECT_EQ(failure->reason(), std::strerror(EFBIG));
        EXPECT_THAT(failure->path(), testing::EndsWith(".mp4"));
    }
    std::signal(SIGXFSZ, SIG_DFL);
}

TEST(EncodeFailure, ADestinationThatCannotBeWrittenIsSaidToBeSo) {
    const Descriptor source = openToRead(testMedia("plain.mov"));
    const OutputPath output("mp4");
    const Descriptor readOnly = openToRead(output.path());
    EncodeRequest request;
    request.source = source.number();
    request.sourcePath = testMedia("plain.mov");
    request.destination = readOnly.number();
    request.destinationPath = output.path();
    RecordingSink sink;
    try {
        encode(request, sink);
        ADD_FAILURE() << "it was written";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), kUnwritable);
        EXPECT_EQ(failure.path(), output.path());
    }
}

TEST(EncodeFailure, DamageInTheMiddleIsSurvived) {
    for (const std::int32_t type : {0, 1}) {
        const auto output = convert({.source = testMedia("damaged.mov"), .type = type});
        EXPECT_NEAR(Probe(output).duration(), 2.0, 0.04);
        EXPECT_GE(number(Probe(output).video(), "nb_read_frames"), 40);
    }
}

TEST(EncodeFailure, AMovieThatBreaksOffIsConvertedAsFarAsItGoes) {
    const auto whole = convert({.source = testMedia("plain.mov"), .extension = "mov", .flatten = true});
    const std::string bytes = readFile(whole.path());
    const OutputPath cut("mov");
    writeFile(cut.path(), bytes.substr(0, bytes.size() * 2 / 3));
    const auto output = convert({.source = cut.path()});
    const double frames = number(Probe(output).video(), "nb_read_frames");
    EXPECT_GE(frames, 10);
    EXPECT_LT(frames, 50);
}

TEST(EncodeFailure, MediaOfWhichNothingDecodesAreUnusable) {
    // The index is whole, what it points to is zeros.
    std::string bytes = readFile(testMedia("silent.mp4"));
    const auto start = bytes.find("mdat") + 4, end = bytes.find("moov") - 4;
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(start), bytes.begin() + static_cast<std::ptrdiff_t>(end),
              '\0');
    const OutputPath zeros("mp4");
    writeFile(zeros.path(), bytes);
    const auto failure = failureOf({.source = zeros.path()});
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code(), kUnusable);
}

TEST(EncodeFailure, AHeaderThatClaimsMoreThanMemoryIsUnusable) {
    // The table of sample sizes says that it has nearly as many entries as its number can say.
    std::string bytes = readFile(testMedia("silent.mp4"));
    const auto table = bytes.find("stsz");
    ASSERT_NE(table, std::string::npos);
    bytes.replace(table + 12, 4, "\x3f\xff\xff\xf0");
    const OutputPath absurd("mp4");
    writeFile(absurd.path(), bytes);
    for (const std::int32_t type : {0, 1}) {
        const auto failure = failureOf({.source = absurd.path(), .type = type});
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->code(), kUnusable) << failure->what();
    }
}

TEST(EncodeFailure, NothingIsPrinted) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    (void)failureOf({.source = testMedia("text.mp4")});
    (void)failureOf({.source = testMedia("damaged.mov")});
    (void)failureOf({.source = testMedia("hdr.mp4"), .type = 2});
    (void)failureOf({.source = testMedia("still.mov"), .type = 6});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(EncodeFailure, AReportOfAnEarlierFailureIsNotBlamedAgain) {
    const auto first = failureOf({.source = testMedia("headless.mp4")});
    const auto second = failureOf({.source = testMedia("empty.mov")});
    ASSERT_TRUE(first && second);
    EXPECT_THAT(second->reason(), testing::Not(HasSubstr("moov")));
}

}  // namespace
}  // namespace krv::media::test
