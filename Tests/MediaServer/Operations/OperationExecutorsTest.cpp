// Which executor thread an operation runs on, and that its progress shows life on each.
#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "LedgerFixture.h"

namespace krv::server {
namespace {

using namespace std::chrono_literals;

TEST_F(Ledger, AShortOperationRunsWhileEveryLongExecutorIsBusy) {
    const auto running = add();
    started(0);
    const auto waiting = add();
    const auto metadata = addShort();
    const auto job = started(1);
    EXPECT_EQ(sourceOf(*job), sourceOf(*metadata));
    EXPECT_EQ(ledger.counts().running, 2U);
    EXPECT_EQ(ledger.counts().queued, 1U);
    job->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(metadata->id).completed);
    EXPECT_FALSE(ledger.snapshot(waiting->id)->ended);
    EXPECT_FALSE(ledger.snapshot(running->id)->ended);
}

TEST_F(Ledger, ShortOperationsRunOneAfterAnother) {
    std::vector<std::optional<Added>> added;
    for (int i = 0; i < 20; ++i) {
        added.push_back(addShort());
    }
    for (std::size_t i = 0; i < added.size(); ++i) {
        const auto job = started(i);
        EXPECT_EQ(sourceOf(*job), sourceOf(*added[i]));
        EXPECT_EQ(ledger.counts().running, 1U);
        job->end.set_value(completed());
    }
    waitForEnd(added.back()->id);
    EXPECT_EQ(mostAtOnce, 1);
}

TEST_F(Ledger, ALongOperationNeverTakesTheShortExecutor) {
    add();
    const auto held = started(0);
    const auto waiting = add("/waiting");
    // Whenever the short executor is free, it passes over the long operation that has waited longer.
    for (std::size_t i = 1; i <= 20; ++i) {
        const auto metadata = addShort();
        const auto job = started(i);
        EXPECT_EQ(sourceOf(*job), sourceOf(*metadata));
        job->end.set_value(completed());
        waitForEnd(metadata->id);
    }
    held->end.set_value(completed());
    EXPECT_EQ(sourceOf(*started(21)), sourceOf(*waiting));
}

TEST_F(Ledger, AnExecutorSurvivesAnExceptionOfItsWork) {
    const auto failing = add();
    started(0)->end.set_exception(
        std::make_exception_ptr(Exception(std::string(kInvalidArgumentException), "cannot be archived")));
    const auto state = waitForEnd(failing->id);
    ASSERT_TRUE(state.error);
    EXPECT_EQ(state.error->code(), static_cast<int>(OperationErrorCode::Internal));
    EXPECT_EQ(state.error->localizedFailureReason(), "NSInvalidArgumentException: cannot be archived");

    const auto next = add();
    started(1)->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(next->id).completed);
}

TEST_F(Ledger, AnExecutorSurvivesAResultThatCannotBeArchived) {
    const auto failing = add();
    auto outcome = completed();
    outcome.record->arguments()->set("text", "\xFF is not UTF-8");
    started(0)->end.set_value(outcome);
    EXPECT_TRUE(waitForEnd(failing->id).error);
    const auto next = add();
    started(1)->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(next->id).completed);
}

TEST_F(Ledger, AWaitingOperationCreepsOnlyByReportsOfItsOwnKind) {
    add();
    const auto longJob = started(0);
    addShort();
    const auto shortJob = started(1);
    const auto longWaiting = add();
    const auto shortWaiting = addShort();
    seconds += 10;
    shortJob->report(0.1);
    EXPECT_GE(ledger.snapshot(shortWaiting->id)->progress, 10 * 1e-6);
    EXPECT_EQ(ledger.snapshot(longWaiting->id)->progress, 0.0);
    const double crept = ledger.snapshot(shortWaiting->id)->progress;
    longJob->report(0.1);
    EXPECT_GE(ledger.snapshot(longWaiting->id)->progress, 10 * 1e-6);
    EXPECT_EQ(ledger.snapshot(shortWaiting->id)->progress, crept);
}

TEST_F(Ledger, AWaitingOperationCreepsWhenOneAheadFinishesWithoutReporting) {
    std::vector<std::optional<Added>> ahead;
    for (int i = 0; i < 4; ++i) {
        ahead.push_back(addShort());
    }
    const auto last = addShort();
    double before = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto job = started(i);
        seconds += 10;
        job->end.set_value(completed());
        waitForEnd(ahead[i]->id);
        EXPECT_GE(ledger.snapshot(last->id)->progress, before + 10 * 1e-6);
        before = ledger.snapshot(last->id)->progress;
    }
}

TEST_F(Ledger, NamesAndCountsCoverBothKinds) {
    add();
    started(0);
    addShort();
    started(1);
    add();
    addShort();
    EXPECT_EQ(ledger.names(), (std::vector<std::string>{"Encode video", "Get poster frame and metadata", "Encode video",
                                                        "Get poster frame and metadata"}));
    EXPECT_EQ(ledger.counts().queued, 2U);
    EXPECT_EQ(ledger.counts().running, 2U);
}

TEST_F(Ledger, AQueueFullOfConversionsDoesNotRefuseMetadata) {
    add();
    started(0);
    addShort();
    started(1);
    for (std::size_t i = 0; i < OperationLedger::kLongestQueue; ++i) {
        ASSERT_TRUE(add());
    }
    EXPECT_FALSE(add());
    for (std::size_t i = 0; i < OperationLedger::kLongestQueue; ++i) {
        ASSERT_TRUE(addShort());
    }
    EXPECT_FALSE(addShort());
}

TEST_F(Ledger, ClosingAndCancellingReachBothKinds) {
    addShort();
    started(0);
    const auto cancelled = addShort();
    const auto closed = addShort();
    EXPECT_TRUE(ledger.cancel(cancelled->id));
    EXPECT_TRUE(ledger.snapshot(cancelled->id)->cancelled);
    ledger.close();
    EXPECT_EQ(ledger.snapshot(closed->id)->error->code(), 1);
    EXPECT_EQ(ledger.counts().queued, 0U);
}

/// The number that a client compares, as it is in the reply.
float seenByClient(const OperationLedger::Snapshot& state) {
    return static_cast<float>(state.progress);
}

TEST_F(Ledger, AClientSeesAWaitingOperationAdvanceEveryMinuteForDays) {
    add();
    const auto job = started(0);
    const auto waiting = add();
    float seen = 0.0F;
    for (int minute = 0; minute < 4 * 24 * 60; ++minute) {
        seconds += 60;
        job->report(0.5);
        const float now = seenByClient(*ledger.snapshot(waiting->id));
        ASSERT_GT(now, seen) << minute;
        seen = now;
    }
}

/// However far it is, and even after the worker has reported 1.
TEST_F(Ledger, AClientSeesARunningOperationAdvanceEveryMinuteFromAnyPoint) {
    std::size_t index = 0;
    for (const double reached :
         {0.0, 1e-6, 0.1, 0.25, 0.5, 0.75, 0.9, 0.98, 0.99, 0.999, 0.9999, 0.99999, 0.999999, 1.0}) {
        const auto operation = add();
        const auto job = started(index++);
        job->report(reached);
        float seen = seenByClient(*ledger.snapshot(operation->id));
        for (int minute = 0; minute < 6 * 60; ++minute) {
            seconds += 60;
            job->report(reached);
            const float now = seenByClient(*ledger.snapshot(operation->id));
            ASSERT_GT(now, seen) << reached << " after " << minute << " minutes";
            ASSERT_LT(now, 1.0F);
            seen = now;
        }
        job->end.set_value(completed());
        EXPECT_EQ(waitForEnd(operation->id).progress, 1.0);
    }
}

TEST_F(Ledger, ARunningOperationDoesNotAdvanceWhileItsWorkerIsSilent) {
    const auto operation = add();
    const auto job = started(0);
    job->report(0.5);
    const double before = ledger.snapshot(operation->id)->progress;
    seconds += 3600;
    EXPECT_EQ(ledger.snapshot(operation->id)->progress, before);
}

TEST_F(Ledger, ADelayedOperationDelaysNoOther) {
    delays = true;
    const auto slowMetadata = addShort();
    const auto slowJob = started(0);
    const auto slowConversion = add();
    const auto slowLongJob = started(1);
    delays = false;
    const auto metadata = addShort();
    started(2)->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(metadata->id).completed);
    const auto conversion = add();
    started(3)->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(conversion->id).completed);
    slowJob->end.set_value(completed());
    slowLongJob->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(slowMetadata->id).completed);
    EXPECT_TRUE(waitForEnd(slowConversion->id).completed);
}

TEST_F(Ledger, AThreadThatWasReplacedEndsWithItsOperation) {
    delays = true;
    const auto slow = addShort();
    const auto slowJob = started(0);
    delays = false;
    slowJob->end.set_value(completed());
    waitForEnd(slow->id);
    addShort();
    const auto running = started(1);
    const auto waiting = addShort();
    EXPECT_EQ(ledger.counts().queued, 1U);
    running->end.set_value(completed());
    started(2)->end.set_value(completed());
    waitForEnd(waiting->id);
    EXPECT_EQ(ledger.counts().running, 0U);
}

}  // namespace
}  // namespace krv::server
