#include <gtest/gtest.h>

#include <MediaServer/Operations/ShownProgress.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

TEST(ShownProgress, FollowsTheReportsOfTheWorker) {
    ShownProgress progress;
    progress.start();
    progress.report(0.25, 0s);
    EXPECT_DOUBLE_EQ(progress.value(), 0.25);
}

TEST(ShownProgress, NeverDecreases) {
    ShownProgress progress;
    progress.report(0.5, 0s);
    progress.report(0.2, 0s);
    progress.report(-3.0, 0s);
    progress.advanceTo(0.1);
    progress.creep(-10s);
    EXPECT_DOUBLE_EQ(progress.value(), 0.5);
}

TEST(ShownProgress, CreepsByTheTimeInWhichThereWasLife) {
    ShownProgress progress;
    progress.creep(10s);
    EXPECT_DOUBLE_EQ(progress.value(), 10 * ShownProgress::kCreepPerSecond);
    progress.creep(0s);
    EXPECT_DOUBLE_EQ(progress.value(), 10 * ShownProgress::kCreepPerSecond);
}

TEST(ShownProgress, ReportsFillTheRangeThatIsLeftWhenTheWorkStarts) {
    ShownProgress progress;
    progress.advanceTo(0.5);
    progress.start();
    progress.report(0.5, 0s);
    EXPECT_DOUBLE_EQ(progress.value(), 0.75);
}

TEST(ShownProgress, KeepsARestForWorkThatIsNotDoneWhenItsWorkerThinksSo) {
    ShownProgress progress;
    progress.report(1.0, 0s);
    EXPECT_DOUBLE_EQ(progress.value(), ShownProgress::kMostReported);
    progress.creep(60s);
    EXPECT_GT(progress.value(), ShownProgress::kMostReported);
}

TEST(ShownProgress, IsOneOnlyWhenComplete) {
    ShownProgress progress;
    progress.advanceTo(7.0);
    progress.report(7.0, 0s);
    for (int day = 0; day < 1000; ++day) {
        progress.creep(24h);
    }
    EXPECT_LT(static_cast<float>(progress.value()), 1.0F);
    progress.complete();
    EXPECT_EQ(progress.value(), 1.0);
}

}  // namespace
}  // namespace krv::server
