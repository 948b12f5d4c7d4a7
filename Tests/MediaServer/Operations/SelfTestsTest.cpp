#include <gtest/gtest.h>

#include <MediaServer/Operations/SelfTests.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

class SelfTestsTest : public testing::Test {
protected:
    ServerOperation::Time now{1h};
    SelfTests tests{[this] { return now; }};
    const ClientKey client{1, 1};
};

TEST_F(SelfTestsTest, AdvancesSteadilyAndCompletes) {
    const auto id = tests.add(10s, true, client);
    EXPECT_EQ(tests.snapshot(id)->progress, 0.0);
    now += 5s;
    EXPECT_DOUBLE_EQ(tests.snapshot(id)->progress, 0.5);
    EXPECT_EQ(tests.running(), 1U);
    now += 5s;
    EXPECT_TRUE(tests.snapshot(id)->completed);
    EXPECT_EQ(tests.snapshot(id)->progress, 1.0);
    EXPECT_EQ(tests.running(), 0U);
}

TEST_F(SelfTestsTest, OneThatNeverCompletesKeepsMoving) {
    const auto id = tests.add(2s, false, client);
    double last = -1;
    for (int i = 0; i < 100; ++i) {
        const auto state = *tests.snapshot(id);
        EXPECT_GT(state.progress, last);
        EXPECT_LT(state.progress, 1.0);
        EXPECT_FALSE(state.ended);
        last = state.progress;
        now += 1min;
    }
}

TEST_F(SelfTestsTest, CanBeCancelledOnlyWhileItRuns) {
    const auto first = tests.add(10s, true, client);
    const auto second = tests.add(1s, true, client);
    now += 2s;
    EXPECT_TRUE(tests.cancel(first));
    EXPECT_TRUE(tests.cancel(second));
    EXPECT_TRUE(tests.snapshot(first)->cancelled);
    EXPECT_FALSE(tests.snapshot(second)->cancelled);
    EXPECT_TRUE(tests.snapshot(second)->completed);
    EXPECT_FALSE(tests.cancel("unknown"));
}

TEST_F(SelfTestsTest, AreForgottenWithTheirClient) {
    const auto id = tests.add(10s, true, client);
    tests.removeAllOf({2, 1});
    EXPECT_TRUE(tests.snapshot(id));
    tests.removeAllOf(client);
    EXPECT_FALSE(tests.snapshot(id));
    EXPECT_FALSE(tests.remove(id));
}

}  // namespace
}  // namespace krv::server
