#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Video/FrameTimer.h>

namespace krv::media {
namespace {

using testing::ElementsAre;
using testing::Pair;

/// Returns the times and durations that a timer gives to frames with these times and durations, in milliseconds.
std::vector<std::pair<std::int64_t, std::int64_t>>
timed(FrameTimer timer, const std::vector<std::pair<std::int64_t, std::int64_t>>& frames) {
    std::vector<std::pair<std::int64_t, std::int64_t>> result;
    const auto sink = [&](FramePtr frame) { result.emplace_back(frame->pts, frame->pkt_duration); };
    for (const auto& [time, duration] : frames) {
        FramePtr frame = newFrame();
        frame->width = frame->height = 2;
        frame->format = AV_PIX_FMT_GRAY8;
        av_frame_get_buffer(frame.get(), 0);
        frame->pts = time;
        frame->pkt_duration = duration;
        timer.push(std::move(frame), sink);
    }
    timer.finish(sink);
    return result;
}

FrameTimer variable() {
    return FrameTimer({{1, 1000}, {1, 1000}, false, 40, 100'000});
}

FrameTimer constant(int rate) {
    return FrameTimer({{1, 1000}, {1, rate}, true, 40, 100'000});
}

TEST(FrameTimer, KeepsTheSourcesTimingAndSetsEachFramesDuration) {
    EXPECT_THAT(timed(variable(), {{0, 0}, {40, 0}, {500, 0}, {540, 60}}),
                ElementsAre(Pair(0, 40), Pair(40, 460), Pair(500, 40), Pair(540, 60)));
}

TEST(FrameTimer, TheLastFrameLastsTheTypicalDurationIfItHasNone) {
    EXPECT_THAT(timed(variable(), {{0, 0}}), ElementsAre(Pair(0, 40)));
}

TEST(FrameTimer, FramesWithoutATimestampFollowTheirPredecessor) {
    EXPECT_THAT(timed(variable(), {{0, 40}, {AV_NOPTS_VALUE, 40}, {AV_NOPTS_VALUE, 40}}),
                ElementsAre(Pair(0, 40), Pair(40, 40), Pair(80, 40)));
}

TEST(FrameTimer, TimesRiseStrictly) {
    EXPECT_THAT(timed(variable(), {{0, 0}, {40, 0}, {40, 0}, {20, 0}, {80, 40}}),
                ElementsAre(Pair(0, 40), Pair(40, 40), Pair(80, 40)));
}

TEST(FrameTimer, FramesBeforeTheBeginningAreDropped) {
    EXPECT_THAT(timed(variable(), {{-40, 0}, {0, 40}}), ElementsAre(Pair(0, 40)));
}

TEST(FrameTimer, AConstantRateRepeatsFrames) {
    EXPECT_THAT(timed(constant(25), {{0, 40}, {120, 40}, {160, 40}}),
                ElementsAre(Pair(0, 1), Pair(1, 1), Pair(2, 1), Pair(3, 1), Pair(4, 1)));
}

TEST(FrameTimer, AConstantRateDropsFrames) {
    EXPECT_THAT(timed(constant(10), {{0, 40}, {40, 40}, {80, 40}, {120, 40}, {160, 40}}),
                ElementsAre(Pair(0, 1), Pair(1, 1)));
}

TEST(FrameTimer, AConstantRateDoesNotMakeTheMovieLonger) {
    // For the frame at 190 ms the next tick, at 200 ms, is the end.
    EXPECT_THAT(timed(constant(10), {{0, 100}, {100, 90}, {190, 10}}), ElementsAre(Pair(0, 1), Pair(1, 1)));
}

TEST(FrameTimer, AConstantRateNeverDropsTheOnlyFrame) {
    EXPECT_THAT(timed(constant(10), {{0, 1}}), ElementsAre(Pair(0, 1)));
}

TEST(FrameTimer, ADamagedTimestampDoesNotRepeatAFrameForHours) {
    EXPECT_LT(timed(constant(25), {{0, 40}, {1'000'000'000, 40}}).size(), 2600U);
}

}  // namespace
}  // namespace krv::media
