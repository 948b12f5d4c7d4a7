#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

TEST(Clock, ConvertsSeconds) {
    EXPECT_EQ(durationFromSeconds(1.5), 1500ms);
    EXPECT_EQ(durationFromSeconds(0.0), 0s);
}

TEST(Clock, ConvertsNegativeNumbersAndNaNToZero) {
    EXPECT_EQ(durationFromSeconds(-1.0), 0s);
    EXPECT_EQ(durationFromSeconds(std::nan("")), 0s);
}

TEST(Clock, LimitsLargeNumbersToTheLongestDuration) {
    EXPECT_EQ(durationFromSeconds(1e300), Clock::Duration::max());
    EXPECT_EQ(durationFromSeconds(std::numeric_limits<double>::infinity()), Clock::Duration::max());
}

TEST(Clock, AddsDurationsUpToTheLatestTime) {
    const Clock::TimePoint hour(1h);
    EXPECT_EQ(timePointAfter(hour, 1h), Clock::TimePoint(2h));
    EXPECT_EQ(timePointAfter(hour, Clock::Duration::max()), Clock::TimePoint::max());
}

TEST(Clock, TheMachinesClockNeverGoesBackAndSleepsLongEnough) {
    Clock& clock = Clock::steady();
    const auto before = clock.now();
    clock.sleepFor(1ms);
    EXPECT_GE(clock.now(), before + 1ms);
}

TEST(FakeClock, DoesNotAdvanceByItself) {
    FakeClock clock;
    const auto start = clock.now();
    EXPECT_EQ(clock.now(), start);
    clock.advanceBy(2s);
    EXPECT_EQ(clock.now(), start + 2s);
    clock.advanceTo(start);
    EXPECT_EQ(clock.now(), start + 2s);
}

TEST(FakeClock, SleepingAdvancesTheTimeAndIsRecorded) {
    FakeClock clock;
    const auto start = clock.now();
    clock.sleepFor(500ms);
    clock.sleepFor(-1s);
    EXPECT_EQ(clock.now(), start + 500ms);
    EXPECT_EQ(clock.sleeps(), (std::vector<Clock::Duration>{500ms, -1s}));
}

}  // namespace
}  // namespace krv
