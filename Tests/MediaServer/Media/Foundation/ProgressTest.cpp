#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {
namespace {

using namespace std::chrono_literals;

class ProgressTest : public testing::Test, public ProgressSink {
protected:
    void progress(double fraction) noexcept override { reports_.push_back(fraction); }

    std::chrono::steady_clock::time_point now_{};
    std::vector<double> reports_;
    Progress progress_{*this, [this] { return now_; }};
};

TEST_F(ProgressTest, ReportsVisibleChangesAtOnce) {
    progress_.reach(0.25);
    progress_.reach(0.5);
    EXPECT_THAT(reports_, testing::ElementsAre(0.25, 0.5));
}

TEST_F(ProgressTest, NeverGoesBackwards) {
    progress_.reach(0.5);
    now_ += 1s;
    progress_.reach(0.2);
    ASSERT_EQ(reports_.size(), 2U);
    EXPECT_GE(reports_[1], reports_[0]);
}

TEST_F(ProgressTest, RepeatsThePositionAsASignOfLife) {
    progress_.reach(0.5);
    for (int second = 0; second < 10; ++second) {
        now_ += 1s;
        progress_.alive();
    }
    EXPECT_EQ(reports_, std::vector<double>(11, 0.5));
}

TEST_F(ProgressTest, DoesNotReportSignsOfLifeThatAreTooClose) {
    progress_.reach(0.5);
    for (int i = 0; i < 99; ++i) {
        now_ += 1ms;
        progress_.alive();
    }
    EXPECT_EQ(reports_.size(), 1U);
}

TEST_F(ProgressTest, DoesNotReportSmallChangesThatAreTooClose) {
    for (int i = 0; i < 100; ++i) {
        now_ += 1ms;
        progress_.reach(i * 1e-4);
    }
    EXPECT_THAT(reports_, testing::ElementsAre(testing::DoubleEq(0.005)));
    progress_.reach(0.05);
    progress_.reach(0.06);
    now_ += 9ms;
    progress_.alive();
    EXPECT_EQ(reports_.size(), 2U);
    now_ += 1ms;
    progress_.alive();
    EXPECT_EQ(reports_.back(), 0.06);
}

TEST_F(ProgressTest, PhasesDivideTheRange) {
    progress_.beginPhase(0.6);
    progress_.reach(0.5);
    progress_.reach(1);
    progress_.beginPhase(1);
    progress_.reach(0.5);
    EXPECT_THAT(reports_, testing::ElementsAre(testing::DoubleEq(0.3), testing::DoubleEq(0.6), testing::DoubleEq(0.8)));
}

TEST_F(ProgressTest, IsOneOnlyWhenFinished) {
    progress_.reach(1);
    now_ += 1000h;
    progress_.alive();
    EXPECT_LT(static_cast<float>(reports_.back()), 1.0F);
    progress_.finish();
    EXPECT_EQ(reports_.back(), 1);
}

}  // namespace
}  // namespace krv::media
