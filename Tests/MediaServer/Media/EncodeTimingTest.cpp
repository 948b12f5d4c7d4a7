#include <cmath>

#include <gmock/gmock.h>

#include "MediaTestKit.h"

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

struct Route {
    const char* source;
    const char* extension;
    std::int32_t type;
};

void PrintTo(const Route& one, std::ostream* out) {
    *out << one.source << " as type " << one.type << " to " << one.extension;
}

class Sync : public testing::TestWithParam<Route> {};

TEST_P(Sync, TheBeepStaysInSyncWithTheFlash) {
    const Route& route = GetParam();
    const auto output = convert({.source = testMedia(route.source), .extension = route.extension, .type = route.type});
    EXPECT_NEAR(flashTime(output.path()), 1.0, kFrame);
    EXPECT_NEAR(beepTime(output.path()), 1.0, kFrame);
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, kFrame / 2);
}

INSTANTIATE_TEST_SUITE_P(Timing, Sync,
                         testing::Values(Route{"flash.mov", "mov", 0}, Route{"flash.mov", "mp4", 1},
                                         Route{"flash.mov", "mp4", 2}, Route{"flash.mov", "mkv", 0},
                                         Route{"flash.mov", "mkv", 1}, Route{"flash.mov", "webm", 5},
                                         Route{"flash.mov", "mov", 4}, Route{"flash.mov", "mp4", 6},
                                         Route{"late.mkv", "mp4", 0}, Route{"late.mkv", "mp4", 1},
                                         Route{"late.mkv", "mkv", 0}, Route{"late.mkv", "mkv", 1},
                                         Route{"late.mkv", "mov", 4}, Route{"late.mkv", "webm", 5}));

TEST(Timing, LateAudioIsPaddedWithSilenceInContainersWithoutTimestamps) {
    for (const char* extension : {"wav", "mp3", "flac"}) {
        const auto output = convert({.source = testMedia("late.mkv"), .extension = extension, .type = 7});
        EXPECT_NEAR(beepTime(output.path()), 1.0, kFrame) << extension;
    }
}

TEST(Timing, AVariableRateIsKept) {
    const auto expected = frameTimes(testMedia("variable.mkv"));
    ASSERT_EQ(expected.size(), 40U);
    for (const char* extension : {"mp4", "mkv", "mov"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto output = convert({.source = testMedia("variable.mkv"), .extension = extension, .type = type});
            EXPECT_THAT(frameTimes(output.path()), testing::Pointwise(testing::DoubleNear(0.0015), expected));
        }
    }
}

TEST(Timing, AConstantRateIsMadeOnRequest) {
    const auto output =
        convert({.source = testMedia("variable.mkv"), .type = 3, .video = VideoRequest{0, 0, 50, "preset=ultrafast"}});
    const auto times = frameTimes(output.path());
    ASSERT_EQ(times.size(), 100U);
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_NEAR(times[i], static_cast<double>(i) / 50, 0.001);
    }
    EXPECT_EQ(text(Probe(output).video(), "avg_frame_rate"), "50/1");
}

TEST(Timing, AConstantRateKeepsTheLength) {
    for (const float fps : {10.0F, 24.0F, 29.97F}) {
        const auto output = convert(
            {.source = testMedia("plain.mov"), .type = 3, .video = VideoRequest{0, 0, fps, "preset=ultrafast"}});
        EXPECT_NEAR(Probe(output).duration(), 2.0, 1.0 / static_cast<double>(fps));
        EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), std::lround(2 * fps));
    }
}

TEST(Timing, TelevisionRatesAreExact) {
    const auto output =
        convert({.source = testMedia("plain.mov"), .type = 3, .video = VideoRequest{0, 0, 29.97F, "preset=ultrafast"}});
    EXPECT_EQ(text(Probe(output).video(), "avg_frame_rate"), "30000/1001");
}

TEST(Timing, AnEditIsHonoured) {
    // The first half second is stored but not shown.
    const auto expected = shownFrame(testMedia("edited.mov"));
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto output = convert({.source = testMedia("edited.mov"), .extension = extension, .type = type});
            EXPECT_EQ(frameTimes(output.path()).size(), 37U) << extension << type;
            EXPECT_NEAR(Probe(output).duration(), 1.5, kFrame) << extension << type;
            EXPECT_LT(difference(shownFrame(output.path()), expected), 4) << extension << type;
        }
    }
}

TEST(Timing, ReorderedFramesKeepTheirTimes) {
    for (const char* source : {"old.avi", "late.mkv", "large.ts"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto times = frameTimes(convert({.source = testMedia(source), .type = type}).path());
            ASSERT_GE(times.size(), 25U) << source;
            for (std::size_t i = 1; i < times.size(); ++i) {
                EXPECT_NEAR(times[i] - times[i - 1], kFrame, 0.0015) << source << type << " " << i;
            }
        }
    }
}

TEST(Timing, AChangeOfSizeInTheMiddleIsFollowed) {
    const auto output = convert({.source = testMedia("changing.ts")});
    const Probe probe(output);
    EXPECT_EQ(number(probe.video(), "width"), 320);
    EXPECT_EQ(number(probe.video(), "height"), 240);
    EXPECT_EQ(number(probe.video(), "nb_read_frames"), 50);
    EXPECT_NEAR(probe.duration(), 2.0, 0.1);
    const auto times = frameTimes(output.path());
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_NEAR(times[i] - times[i - 1], kFrame, 0.015);
    }
}

}  // namespace
}  // namespace krv::media::test
