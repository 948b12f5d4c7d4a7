// The ledger's report for the activity page.
#include <gtest/gtest.h>

#include "LedgerFixture.h"
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::server {
namespace {

class Activity : public Ledger {
protected:
    void fail(std::size_t index, const std::string& reason) {
        const auto job = started(index);
        job->end.set_value({Outcome::Kind::Failed,
                            makeError(*job->request, {.cause = FailureCause::WorkerCrashed, .reason = reason}),
                            nullptr});
    }
};

TEST_F(Activity, DescribesWhatRunsAndWhatWaits) {
    add("/one.mov", {7, 1});
    seconds += 2;
    add("/two.mov", {8, 1});
    const auto job = started(0);
    seconds += 10;
    job->report(0.25);
    const OperationActivity activity = ledger.activity();
    ASSERT_EQ(activity.running.size(), 1U);
    EXPECT_EQ(sourceOf(activity.running[0]), "/one.mov");
    EXPECT_EQ(activity.running[0].client.pid, 7);
    EXPECT_NEAR(activity.running[0].progress, 0.25, 1e-9);
    EXPECT_NEAR(activity.running[0].remaining->count(), 3 * activity.running[0].elapsed.count(), 1e-3);
    ASSERT_EQ(activity.waiting.size(), 1U);
    EXPECT_EQ(sourceOf(activity.waiting[0]), "/two.mov");
    EXPECT_NEAR(activity.waiting[0].waited.count(), 10, 1e-9);
    EXPECT_EQ(activity.waitingInAll, 1U);
}

TEST_F(Activity, HasNoEstimateAtFirst) {
    add();
    started(0)->report(0.5);
    EXPECT_FALSE(ledger.activity().running.at(0).remaining);
}

TEST_F(Activity, ForgetsWhatHasEnded) {
    const auto operation = add();
    started(0)->end.set_value(completed());
    (void)waitForEnd(operation->id);
    EXPECT_TRUE(ledger.activity().running.empty());
    EXPECT_TRUE(ledger.activity().problems.empty());
}

TEST_F(Activity, ListsShortAndLongOperationsInTheOrderInWhichTheyWereMade) {
    add();
    addShort();
    (void)started(1);
    add();
    addShort();
    add();
    const OperationActivity activity = ledger.activity();
    ASSERT_EQ(activity.running.size(), 2U);
    EXPECT_LT(activity.running[0].number, activity.running[1].number);
    ASSERT_EQ(activity.waiting.size(), 3U);
    EXPECT_LT(activity.waiting[0].number, activity.waiting[1].number);
    EXPECT_LT(activity.waiting[1].number, activity.waiting[2].number);
}

TEST_F(Activity, DescribesOnlyTheFirstOfManyThatWait) {
    add();
    (void)started(0);
    for (std::size_t i = 0; i < OperationLedger::kMostDescribed + 10; ++i) {
        add();
    }
    EXPECT_EQ(ledger.activity().waiting.size(), OperationLedger::kMostDescribed);
    EXPECT_EQ(ledger.activity().waitingInAll, OperationLedger::kMostDescribed + 10);
}

TEST_F(Activity, RemembersTheLatestProblems) {
    const std::size_t all = OperationLedger::kMostProblems + 5;
    for (std::size_t i = 0; i < all; ++i) {
        const auto operation = add(("/movie-" + std::to_string(i) + ".mov").c_str());
        fail(i, "r");
        (void)waitForEnd(operation->id);
        seconds += 1;
    }
    const auto problems = ledger.activity().problems;
    ASSERT_EQ(problems.size(), OperationLedger::kMostProblems);
    EXPECT_NE(problems.front().sentence.find("movie-24.mov"), std::string::npos) << problems.front().sentence;
    EXPECT_NE(problems.back().sentence.find("movie-5.mov"), std::string::npos) << problems.back().sentence;
    EXPECT_NEAR(problems.front().ago.count(), 1, 1e-9);
    EXPECT_NEAR(problems.back().ago.count(), static_cast<double>(OperationLedger::kMostProblems), 1e-9);
}

TEST_F(Activity, RemembersARefusedRequestAndShortensItsSentence) {
    std::string name = "/";
    for (int i = 0; i < 1000; ++i) {
        name += "\u00E4";
    }
    const auto request = KRVOperationBase::encodeVideoOperation(name, "/d");
    (void)ledger.addRefused(makeError(*request, {.cause = FailureCause::QueueFull}));
    const auto problems = ledger.activity().problems;
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_LE(problems[0].sentence.size(), OperationLedger::kLongestSentence);
    EXPECT_TRUE(problems[0].sentence.ends_with("\u00E4\u2026"));
}

}  // namespace
}  // namespace krv::server
