#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr AVMediaType kVideo = AVMEDIA_TYPE_VIDEO;
constexpr AVMediaType kAudio = AVMEDIA_TYPE_AUDIO;

/// Returns what parsing throws, or nothing if it succeeds.
std::optional<Failure> refusal(std::string_view text, AVMediaType type = kVideo) {
    try {
        (void)parseSettings(text, type);
    } catch (const Failure& failure) {
        return failure;
    }
    return std::nullopt;
}

std::optional<FailureCause> causeOf(std::string_view text) {
    const auto failure = refusal(text);
    return failure ? std::optional(failure->cause) : std::nullopt;
}

TEST(Settings, EmptyTextHasNoSettings) {
    const Settings settings = parseSettings("", kVideo);
    EXPECT_FALSE(settings.width || settings.height || settings.bitRate || settings.pixelFormat);
    EXPECT_TRUE(settings.options.empty());
}

TEST(Settings, KnownVideoKeysBecomeNumbers) {
    const Settings settings = parseSettings("width=640:height=360:bitrate=500000:pixelFormat=yuv420p10le", kVideo);
    EXPECT_EQ(settings.width, 640);
    EXPECT_EQ(settings.height, 360);
    EXPECT_EQ(settings.bitRate, 500000);
    EXPECT_EQ(settings.pixelFormat, AV_PIX_FMT_YUV420P10);
}

TEST(Settings, KnownAudioKeysBecomeNumbers) {
    const Settings settings = parseSettings("channels=2:sampleRate=44100:bitrate=64000", kAudio);
    EXPECT_EQ(settings.channels, 2);
    EXPECT_EQ(settings.sampleRate, 44100);
    EXPECT_EQ(settings.bitRate, 64000);
}

TEST(Settings, TrimTimesAreMicroseconds) {
    for (const AVMediaType type : {kVideo, kAudio}) {
        const Settings settings = parseSettings("trimStart=1.5:trimEnd=61.000001", type);
        EXPECT_EQ(settings.trimStart, 1'500'000);
        EXPECT_EQ(settings.trimEnd, 61'000'001);
    }
}

TEST(Settings, TracksAreAList) {
    EXPECT_THAT(parseSettings("audioTracks=1,deu", kAudio).tracks, ElementsAre("1", "deu"));
    EXPECT_THAT(parseSettings("subtitleTracks=fra", kVideo).tracks, ElementsAre("fra"));
}

TEST(Settings, OtherKeysAreEncoderOptionsInTheirOrder) {
    EXPECT_THAT(parseSettings("preset=slow:g=50:x264-params=keyint=30", kVideo).options,
                ElementsAre(Pair("preset", "slow"), Pair("g", "50"), Pair("x264-params", "keyint=30")));
}

TEST(Settings, EmptyPartsAreSkipped) {
    EXPECT_EQ(parseSettings("::width=640:", kVideo).width, 640);
}

TEST(Settings, TextThatIsNotUTF8IsAnInvalidArgument) {
    EXPECT_EQ(causeOf("preset=\xff\xfe"), FailureCause::InvalidArgument);
    EXPECT_EQ(causeOf("preset=\xc3"), FailureCause::InvalidArgument);          // truncated sequence
    EXPECT_EQ(causeOf("preset=\xc0\xaf"), FailureCause::InvalidArgument);      // overlong sequence
    EXPECT_EQ(causeOf("preset=\xed\xa0\x80"), FailureCause::InvalidArgument);  // half of a surrogate pair
}

TEST(Settings, UnknownKeysAreLeftToTheEncoder) {
    EXPECT_FALSE(refusal("größe=1"));
}

struct Refused {
    const char* text;
    AVMediaType type;
    const char* key;
    const char* detail;  ///< part of it
};

void PrintTo(const Refused& one, std::ostream* out) {
    *out << one.text;
}

class RefusedSettings : public testing::TestWithParam<Refused> {};

TEST_P(RefusedSettings, AreUnsupportedAndNamed) {
    const auto failure = refusal(GetParam().text, GetParam().type);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting);
    EXPECT_EQ(failure->subject, GetParam().key);
    EXPECT_THAT(failure->detail, HasSubstr(GetParam().detail));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, RefusedSettings,
    testing::Values(Refused{"width", kVideo, "width", "has no value"}, Refused{"=5", kVideo, "=5", "has no value"},
                    Refused{"width=", kVideo, "width", "is not a whole number"},
                    Refused{"width=0", kVideo, "width", "is out of range"},
                    Refused{"width=-640", kVideo, "width", "is out of range"},
                    Refused{"width=6e2", kVideo, "width", "is not a whole number"},
                    Refused{"width=nan", kVideo, "width", "is not a whole number"},
                    Refused{"height=100000", kVideo, "height", "is out of range (2 to 16384)"},
                    Refused{"height=99999999999999999999", kVideo, "height", "is not a whole number"},
                    Refused{"bitrate=1", kVideo, "bitrate", "is out of range"},
                    Refused{"pixelFormat=plaid", kVideo, "pixelFormat", "plaid"},
                    Refused{"channels=0", kAudio, "channels", "is out of range"},
                    Refused{"channels=9", kAudio, "channels", "is out of range (1 to 8)"},
                    Refused{"sampleRate=1", kAudio, "sampleRate", "is out of range"},
                    Refused{"trimStart=", kVideo, "trimStart", "is not a number of seconds"},
                    Refused{"trimStart=nan", kVideo, "trimStart", "is not a number of seconds"},
                    Refused{"trimEnd=1s", kAudio, "trimEnd", "is not a number of seconds"},
                    Refused{"trimEnd=-1", kAudio, "trimEnd", "is out of range"},
                    Refused{"trimEnd=3600001", kAudio, "trimEnd", "is out of range"},
                    Refused{"audioTracks=1,,2", kAudio, "audioTracks", "has an empty entry"},
                    Refused{"stats=/tmp/x", kVideo, "stats", "cannot be set"},
                    Refused{"passlogfile=x", kVideo, "passlogfile", "cannot be set"},
                    Refused{"x264-params=stats=/tmp/x", kVideo, "x264-params", "stats"},
                    Refused{"x265-params=csv=/tmp/x", kVideo, "x265-params", "csv"},
                    Refused{"flags=+pass1", kVideo, "flags", "+pass1"},
                    Refused{"threads=1000", kVideo, "threads", "cannot be set"}));

TEST(Settings, KeysWithANullCharacterAreRefused) {
    const auto failure = refusal(std::string("preset=fast\0er", 14));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting);
    EXPECT_EQ(failure->subject, "preset");
}

TEST(Range, ZeroAndValuesWithinAreAccepted) {
    EXPECT_NO_THROW(checkRange("quality", 0, 0, 1));
    EXPECT_NO_THROW(checkRange("quality", 1, 0, 1));
    EXPECT_NO_THROW(checkRange("quality", 0.01F, 0, 1));
}

TEST(Range, OtherValuesAreOutOfRangeAndNamed) {
    using Limits = std::numeric_limits<float>;
    for (const float value : {-0.5F, 1.5F, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), -1e-30F}) {
        try {
            checkRange("quality", value, 0, 1);
            ADD_FAILURE() << value << " was accepted";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, FailureCause::ValueOutOfRange);
            EXPECT_EQ(failure.subject, fmt::format("quality {}", value));
            EXPECT_EQ(failure.detail, "0 or from 0 to 1");
        }
    }
}

}  // namespace
}  // namespace krv::media
