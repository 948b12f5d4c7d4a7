#include <cerrno>
#include <csignal>
#include <limits>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"

namespace krv::media::test {
namespace {

using testing::HasSubstr;

using Cause = FailureCause;

struct Bad {
    const char* what;
    Conversion conversion;
    server::Failure expected;  ///< the reason may contain more
};

void PrintTo(const Bad& bad, std::ostream* out) {
    *out << bad.what;
}

class BadConversions : public testing::TestWithParam<Bad> {};

TEST_P(BadConversions, FailWithTheirCauseAndWhatItIsAbout) {
    const Bad& bad = GetParam();
    const auto failure = failureOf(bad.conversion);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->cause, bad.expected.cause) << failure->what();
    EXPECT_EQ(failure->subject, bad.expected.subject);
    EXPECT_EQ(failure->detail, bad.expected.detail);
    EXPECT_THAT(failure->reason, HasSubstr(bad.expected.reason));
    EXPECT_FALSE(failure->source);
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

constexpr const char* kQualities = "0 or from 0 to 1";
constexpr const char* kRates = "0 or from 0.01 to 1000";
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

INSTANTIATE_TEST_SUITE_P(
    Sources, BadConversions,
    testing::Values(Bad{"empty", from("empty.mov"), {Cause::SourceIsEmpty}},
                    Bad{"text", from("text.mp4"), {.cause = Cause::Damaged, .reason = "moov"}},
                    Bad{"textCopied", from("text.mp4", 0), {.cause = Cause::Damaged, .reason = "moov"}},
                    Bad{"noIndex",
                        from("headless.mp4"),
                        {.cause = Cause::Damaged, .reason = "opening the file: moov atom not found"}},
                    Bad{"folder", {.source = testing::TempDir()}, {Cause::SourceIsFolder}},
                    Bad{"playlist", from("playlist.m3u8"), {Cause::RefersToOtherFiles, "hls"}},
                    Bad{"concatenation", from("concat.ffconcat"), {Cause::RefersToOtherFiles, "concat"}},
                    Bad{"subtitlesOnly", from("lines.srt"), {Cause::NoVideoOrAudioTrack}},
                    Bad{"noAudioForAudioOnly", from("silent.mp4", 7), {Cause::NoAudioTrack}},
                    Bad{"notAFile", {.source = "/dev/null"}, {Cause::SourceIsNotAFile}}));

INSTANTIATE_TEST_SUITE_P(
    Requests, BadConversions,
    testing::Values(
        Bad{"container", into("flv", 1), {Cause::UnsupportedContainer, "flv"}},
        Bad{"type", into("mp4", 8), {Cause::UnsupportedEncodingType, "8"}},
        Bad{"negativeType", into("mp4", -1), {Cause::UnsupportedEncodingType, "-1"}},
        Bad{"typeInContainer", into("webm", 1), {Cause::ContainerCannotHold, "webm", "H.264"}},
        Bad{"typeInAudioContainer", into("wav", 1), {Cause::ContainerCannotHold, "wav", "H.264"}},
        Bad{"audioOfTypeInContainer",
            {.source = testMedia("sound.wav"), .extension = "flac", .type = 1},
            {Cause::ContainerCannotHold, "flac", "AAC"}},
        Bad{"ProResInMP4", into("mp4", 4), {Cause::ContainerCannotHold, "mp4", "ProRes 422"}},
        Bad{"flattenInContainer", into("webm", 0, true), {Cause::ContainerCannotHold, "webm", "h264"}},
        Bad{"videoCodec", with(VideoRequest{fourCC("XVID"), 0, 0, ""}), {Cause::UnsupportedCodec, "XVID"}},
        Bad{"audioCodecForVideo",
            with(VideoRequest{fourCC("mp4a"), 0, 0, ""}),
            {Cause::WrongKindOfCodec, "mp4a", "a video codec"}},
        Bad{"audioCodec", with(AudioRequest{fourCC("wma2"), 0, ""}), {Cause::UnsupportedCodec, "wma2"}},
        Bad{"codecInContainer",
            with(VideoRequest{fourCC("avc1"), 0, 0, ""}, "webm"),
            {Cause::ContainerCannotHold, "webm", "H.264"}},
        Bad{"audioCodecInContainer",
            with(AudioRequest{fourCC("lpcm"), 0, ""}, "mp3"),
            {Cause::ContainerCannotHold, "mp3", "PCM"}},
        Bad{"videoQualityNaN", with(VideoRequest{0, kNaN, 0, ""}), {Cause::ValueOutOfRange, "quality nan", kQualities}},
        Bad{"videoQualityNegative",
            with(VideoRequest{0, -0.1F, 0, ""}),
            {Cause::ValueOutOfRange, "quality -0.1", kQualities}},
        Bad{"videoQualityTooHigh",
            with(VideoRequest{0, 1.1F, 0, ""}),
            {Cause::ValueOutOfRange, "quality 1.1", kQualities}},
        Bad{"audioQualityInfinite",
            with(AudioRequest{0, kInfinity, ""}),
            {Cause::ValueOutOfRange, "quality inf", kQualities}},
        Bad{"rateNaN", with(VideoRequest{0, 0, kNaN, ""}), {Cause::ValueOutOfRange, "frame rate nan", kRates}},
        Bad{"rateNegative", with(VideoRequest{0, 0, -25, ""}), {Cause::ValueOutOfRange, "frame rate -25", kRates}},
        Bad{"rateAbsurd",
            with(VideoRequest{0, 0, 1e9F, ""}),
            {Cause::ValueOutOfRange, "frame rate 1000000000", kRates}}));

INSTANTIATE_TEST_SUITE_P(
    Settings, BadConversions,
    testing::Values(
        Bad{"unknownKey",
            with(VideoRequest{0, 0, 0, "sharpness=5"}),
            {Cause::SettingDoesNotApply, "sharpness", "libx264"}},
        Bad{"unknownAudioKey", with(AudioRequest{0, 0, "loudness=5"}), {Cause::SettingDoesNotApply, "loudness", "aac"}},
        Bad{"keyOfTheOtherKind", with(AudioRequest{0, 0, "width=64"}), {Cause::SettingDoesNotApply, "width", "aac"}},
        Bad{"videoOptionForAudio", with(AudioRequest{0, 0, "bf=2"}), {Cause::SettingDoesNotApply, "bf", "aac"}},
        Bad{"badPreset",
            with(VideoRequest{0, 0, 0, "preset=warp"}),
            {.cause = Cause::EncoderRefuses, .subject = "H.264", .reason = "preset"}},
        Bad{"badNumber", with(VideoRequest{0, 0, 0, "crf=abc"}), {Cause::SettingDoesNotApply, "crf=abc", "libx264"}},
        Bad{"numberNaN", with(VideoRequest{0, 0, 0, "crf=nan"}), {Cause::SettingDoesNotApply, "crf=nan", "libx264"}},
        Bad{"pixelFormat",
            with(VideoRequest{0, 0, 0, "pixelFormat=rgb24"}),
            {Cause::SettingDoesNotApply, "pixelFormat=rgb24", "H.264"}},
        Bad{"presetForNone", with(AudioRequest{0, 0, "preset=fast"}), {Cause::SettingDoesNotApply, "preset", "aac"}},
        Bad{"bitRateForLossless",
            with(AudioRequest{fourCC("fLaC"), 0, "bitrate=64000"}, "flac"),
            {Cause::SettingDoesNotApply, "bitrate", "FLAC"}},
        Bad{"rateForCodec",
            with(AudioRequest{fourCC(".mp3"), 0, "sampleRate=96000"}, "mp3"),
            {Cause::SettingDoesNotApply, "sampleRate=96000", "MP3"}},
        Bad{"channelsForCodec",
            with(AudioRequest{fourCC(".mp3"), 0, "channels=6"}, "mp3"),
            {Cause::UnsupportedChannels, "6", "MP3"}},
        Bad{"notUTF8",
            with(VideoRequest{0, 0, 0, "preset=\xff"}),
            {Cause::InvalidArgument, "settings", "is not UTF-8 text"}}));

TEST(EncodeFailure, AFullDiskIsAnUnwritableDestination) {
    // A limit on file sizes simulates a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    for (const std::int32_t type : {0, 1}) {
        const rlimit small{20'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const auto failure = failureOf({.source = testMedia("plain.mov"), .type = type});
        setrlimit(RLIMIT_FSIZE, &before);
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->cause, Cause::UnwritableDestination) << failure->what();
        EXPECT_EQ(failure->errorNumber, EFBIG);
    }
    std::signal(SIGXFSZ, SIG_DFL);
}

TEST(EncodeFailure, AReadOnlyDestinationIsUnwritable) {
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
        ADD_FAILURE() << "the conversion succeeded";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, Cause::UnwritableDestination);
        EXPECT_EQ(failure.errorNumber, EINVAL);
    }
}

TEST(EncodeFailure, DamageInTheMiddleIsSkipped) {
    for (const std::int32_t type : {0, 1}) {
        const auto output = convert({.source = testMedia("damaged.mov"), .type = type});
        EXPECT_NEAR(Probe(output).duration(), 2.0, 0.04);
        EXPECT_GE(number(Probe(output).video(), "nb_read_frames"), 40);
    }
}

TEST(EncodeFailure, ATruncatedMovieIsConvertedToItsEnd) {
    const auto whole = convert({.source = testMedia("plain.mov"), .extension = "mov", .flatten = true});
    const std::string bytes = readFile(whole.path());
    const OutputPath cut("mov");
    writeFile(cut.path(), bytes.substr(0, bytes.size() * 2 / 3));
    const auto output = convert({.source = cut.path()});
    const double frames = number(Probe(output).video(), "nb_read_frames");
    EXPECT_GE(frames, 10);
    EXPECT_LT(frames, 50);
}

TEST(EncodeFailure, AMovieOfWhichNothingDecodesIsDamaged) {
    // The index is intact, but the media data is zeros.
    std::string bytes = readFile(testMedia("silent.mp4"));
    const auto start = bytes.find("mdat") + 4, end = bytes.find("moov") - 4;
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(start), bytes.begin() + static_cast<std::ptrdiff_t>(end),
              '\0');
    const OutputPath zeros("mp4");
    writeFile(zeros.path(), bytes);
    const auto failure = failureOf({.source = zeros.path()});
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->cause, Cause::Damaged);
}

TEST(EncodeFailure, AHeaderThatClaimsTooMuchMemoryMakesTheSourceUnusable) {
    // The table of sample sizes claims nearly the largest possible number of entries.
    std::string bytes = readFile(testMedia("silent.mp4"));
    const auto table = bytes.find("stsz");
    ASSERT_NE(table, std::string::npos);
    bytes.replace(table + 12, 4, "\x3f\xff\xff\xf0");
    const OutputPath absurd("mp4");
    writeFile(absurd.path(), bytes);
    for (const std::int32_t type : {0, 1}) {
        const auto failure = failureOf({.source = absurd.path(), .type = type});
        ASSERT_TRUE(failure.has_value());
        EXPECT_THAT(failure->cause, testing::AnyOf(Cause::NeedsTooMuchMemory, Cause::Damaged)) << failure->what();
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

TEST(EncodeFailure, TheLogOfAnEarlierFailureIsNotReportedAgain) {
    const auto first = failureOf({.source = testMedia("headless.mp4")});
    const auto second = failureOf({.source = testMedia("empty.mov")});
    ASSERT_TRUE(first && second);
    EXPECT_THAT(second->reason, testing::Not(HasSubstr("moov")));
}

}  // namespace
}  // namespace krv::media::test
