#include <cmath>
#include <limits>
#include <string>

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

/// Code and reason of what parsing throws; code 0 if it succeeds.
std::pair<int, std::string> refusal(std::string_view text, AVMediaType type = kVideo) {
    try {
        (void)parseSettings(text, type);
    } catch (const Failure& failure) {
        return {failure.code(), failure.reason()};
    }
    return {0, ""};
}

TEST(Settings, EmptyTextAsksForNothing) {
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

TEST(Settings, OtherKeysAreEncoderOptionsInTheirOrder) {
    EXPECT_THAT(parseSettings("preset=slow:g=50:x264-params=keyint=30", kVideo).options,
                ElementsAre(Pair("preset", "slow"), Pair("g", "50"), Pair("x264-params", "keyint=30")));
}

TEST(Settings, EmptyPartsAreSkipped) {
    EXPECT_EQ(parseSettings("::width=640:", kVideo).width, 640);
}

TEST(Settings, TextThatIsNoUTF8IsABadArgument) {
    EXPECT_EQ(refusal("preset=\xff\xfe").first, 9);
    EXPECT_EQ(refusal("preset=\xc3").first, 9);          // cut off in the middle
    EXPECT_EQ(refusal("preset=\xc0\xaf").first, 9);      // longer than needed
    EXPECT_EQ(refusal("preset=\xed\xa0\x80").first, 9);  // half of a pair
}

TEST(Settings, UTF8ThatIsNoOptionIsUnsupportedLater) {
    EXPECT_EQ(refusal("größe=1").first, 0);
}

struct Refused {
    const char* text;
    AVMediaType type;
    const char* named;
};

void PrintTo(const Refused& one, std::ostream* out) {
    *out << one.text;
}

class RefusedSettings : public testing::TestWithParam<Refused> {};

TEST_P(RefusedSettings, AreUnsupportedAndNamed) {
    const auto [code, reason] = refusal(GetParam().text, GetParam().type);
    EXPECT_EQ(code, 6);
    EXPECT_THAT(reason, HasSubstr(GetParam().named));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, RefusedSettings,
    testing::Values(Refused{"width", kVideo, "width"}, Refused{"=5", kVideo, "=5"}, Refused{"width=", kVideo, "width"},
                    Refused{"width=0", kVideo, "width"}, Refused{"width=-640", kVideo, "width"},
                    Refused{"width=6e2", kVideo, "width"}, Refused{"width=nan", kVideo, "width"},
                    Refused{"height=100000", kVideo, "height"},
                    Refused{"height=99999999999999999999", kVideo, "height"}, Refused{"bitrate=1", kVideo, "bitrate"},
                    Refused{"pixelFormat=plaid", kVideo, "plaid"}, Refused{"channels=0", kAudio, "channels"},
                    Refused{"channels=9", kAudio, "channels"}, Refused{"sampleRate=1", kAudio, "sampleRate"},
                    Refused{"stats=/tmp/x", kVideo, "stats"}, Refused{"passlogfile=x", kVideo, "passlogfile"},
                    Refused{"x264-params=stats=/tmp/x", kVideo, "x264-params"},
                    Refused{"x265-params=csv=/tmp/x", kVideo, "x265-params"}, Refused{"flags=+pass1", kVideo, "flags"},
                    Refused{"threads=1000", kVideo, "threads"}));

TEST(Settings, KeysWithANullCharacterAreRefused) {
    EXPECT_EQ(refusal(std::string("preset=fast\0er", 14)).first, 6);
}

TEST(Range, ZeroAndWhatLiesWithinAreTaken) {
    EXPECT_NO_THROW(checkRange("quality", 0, 0, 1));
    EXPECT_NO_THROW(checkRange("quality", 1, 0, 1));
    EXPECT_NO_THROW(checkRange("quality", 0.01F, 0, 1));
}

TEST(Range, EverythingElseIsUnsupportedAndNamed) {
    using Limits = std::numeric_limits<float>;
    for (const float value : {-0.5F, 1.5F, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), -1e-30F}) {
        try {
            checkRange("quality", value, 0, 1);
            ADD_FAILURE() << value << " was taken";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), 6);
            EXPECT_THAT(failure.reason(), HasSubstr("quality"));
        }
    }
}

}  // namespace
}  // namespace krv::media
