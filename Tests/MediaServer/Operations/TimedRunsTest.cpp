#include <gtest/gtest.h>

#include <MediaServer/Operations/OperationLedger.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

class TimedRuns : public testing::Test {
protected:
    ServerOperation::Time now{1h};
    OperationLedger ledger{[] {}, [this] { return now; }};
    const ClientKey client{1, 1};
};

TEST_F(TimedRuns, AdvancesSteadilyAndCompletes) {
    const auto id = *ledger.addTimed({10s, true}, client);
    EXPECT_EQ(ledger.snapshot(id)->progress, 0.0);
    now += 5s;
    EXPECT_DOUBLE_EQ(ledger.snapshot(id)->progress, 0.5);
    EXPECT_EQ(ledger.counts().running, 1U);
    now += 5s;
    EXPECT_TRUE(ledger.snapshot(id)->completed);
    EXPECT_EQ(ledger.snapshot(id)->progress, 1.0);
    EXPECT_EQ(ledger.counts().running, 0U);
}

TEST_F(TimedRuns, OneThatNeverCompletesKeepsMoving) {
    const auto id = *ledger.addTimed({2s, false}, client);
    double last = -1;
    for (int i = 0; i < 100; ++i) {
        const auto state = *ledger.snapshot(id);
        EXPECT_GT(state.progress, last);
        EXPECT_LT(state.progress, 1.0);
        EXPECT_FALSE(state.ended);
        last = state.progress;
        now += 1min;
    }
}

TEST_F(TimedRuns, CanBeCancelledOnlyWhileItRuns) {
    const auto first = *ledger.addTimed({10s, true}, client);
    const auto second = *ledger.addTimed({1s, true}, client);
    now += 2s;
    EXPECT_TRUE(ledger.cancel(first));
    EXPECT_TRUE(ledger.cancel(second));
    EXPECT_TRUE(ledger.snapshot(first)->cancelled);
    EXPECT_FALSE(ledger.snapshot(second)->cancelled);
    EXPECT_TRUE(ledger.snapshot(second)->completed);
    EXPECT_FALSE(ledger.cancel("unknown"));
}

TEST_F(TimedRuns, AreRemovedWithTheirClient) {
    const auto id = *ledger.addTimed({10s, true}, client);
    ledger.removeAllOf({2, 1});
    EXPECT_TRUE(ledger.snapshot(id));
    ledger.removeAllOf(client);
    EXPECT_FALSE(ledger.snapshot(id));
    EXPECT_FALSE(ledger.remove(id));
}

TEST_F(TimedRuns, AreCancelledWithEverythingElse) {
    const auto id = *ledger.addTimed({2s, false}, client);
    ledger.cancelEverything();
    EXPECT_TRUE(ledger.snapshot(id)->cancelled);
    EXPECT_EQ(ledger.counts().running, 0U);
}

TEST_F(TimedRuns, AreNotListedAsMediaOperations) {
    (void)ledger.addTimed({2s, false}, client);
    EXPECT_TRUE(ledger.names().empty());
}

TEST_F(TimedRuns, TooManyAreRefused) {
    for (std::size_t i = 0; i < OperationLedger::kMostTimedRuns; ++i) {
        ASSERT_TRUE(ledger.addTimed({10s, true}, client));
    }
    EXPECT_FALSE(ledger.addTimed({10s, true}, client));
    now += 10s;
    EXPECT_TRUE(ledger.addTimed({10s, true}, client));
}

}  // namespace
}  // namespace krv::server
