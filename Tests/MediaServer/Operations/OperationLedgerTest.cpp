#include <thread>

#include <gtest/gtest.h>

#include "LedgerFixture.h"
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::server {
namespace {

TEST_F(Ledger, CompletesAndKeepsTheResult) {
    const auto operation = add();
    const auto job = started(0);
    job->report(0.25);
    EXPECT_NEAR(ledger.snapshot(operation->id)->progress, 0.25, 1e-9);
    job->end.set_value(completed());
    const auto state = waitForEnd(operation->id);
    EXPECT_TRUE(state.completed);
    EXPECT_EQ(state.progress, 1.0);
    const auto record = *ledger.record(operation->id);
    EXPECT_TRUE(record->completed());
    EXPECT_EQ((*record->arguments())["made"], Value(true));
    EXPECT_EQ(record->encodingSourceFilename(), "/s");
    EXPECT_TRUE(ledger.remove(operation->id));
    EXPECT_FALSE(ledger.remove(operation->id));
    EXPECT_FALSE(ledger.snapshot(operation->id));
}

TEST_F(Ledger, ProgressNeverGoesBackwardsAndIsOneOnlyAtTheEnd) {
    const auto operation = add();
    const auto job = started(0);
    job->report(0.5);
    job->report(0.2);
    EXPECT_NEAR(ledger.snapshot(operation->id)->progress, 0.5, 1e-9);
    job->report(7.0);
    EXPECT_LT(ledger.snapshot(operation->id)->progress, 1.0);
    job->report(-1.0);
    EXPECT_LT(ledger.snapshot(operation->id)->progress, 1.0);
}

TEST_F(Ledger, AWaitingOperationCreepsOnlyWhileARunningOneReports) {
    add();
    const auto waiting = add();
    const auto job = started(0);
    EXPECT_EQ(ledger.snapshot(waiting->id)->progress, 0.0);
    seconds += 10;
    EXPECT_EQ(ledger.snapshot(waiting->id)->progress, 0.0);
    job->report(0.1);
    const double crept = ledger.snapshot(waiting->id)->progress;
    EXPECT_GE(crept, 10 * 1e-6);
    job->report(0.1);
    EXPECT_EQ(ledger.snapshot(waiting->id)->progress, crept);
}

TEST_F(Ledger, AnOperationThatCreptWhileWaitingAdvancesFromThereWhenItRuns) {
    add();
    const auto second = add();
    const auto job = started(0);
    seconds += 7200;
    job->report(0.5);
    const double crept = ledger.snapshot(second->id)->progress;
    job->end.set_value(completed());
    const auto next = started(1);
    next->report(0.001);
    EXPECT_GT(ledger.snapshot(second->id)->progress, crept);
}

TEST_F(Ledger, AFailureIsKept) {
    const auto operation = add();
    started(0)->end.set_value({Outcome::Kind::Failed,
                               makeError(*operation->request, {.cause = FailureCause::WorkerCrashed, .reason = "r"}),
                               nullptr});
    const auto state = waitForEnd(operation->id);
    EXPECT_FALSE(state.completed);
    EXPECT_EQ(state.error->code(), 7);
}

TEST_F(Ledger, CancellingAWaitingOperationEndsItAtOnce) {
    add();
    const auto waiting = add();
    started(0);
    EXPECT_EQ(ledger.names().size(), 2U);
    EXPECT_TRUE(ledger.cancel(waiting->id));
    EXPECT_TRUE(ledger.snapshot(waiting->id)->cancelled);
    EXPECT_TRUE(ledger.snapshot(waiting->id)->ended);
    EXPECT_EQ(ledger.names().size(), 1U);
    EXPECT_FALSE(ledger.cancel("unknown"));
}

TEST_F(Ledger, CancellingARunningOperationAsksItsExecutor) {
    const auto operation = add();
    const auto job = started(0);
    EXPECT_FALSE(job->cancellation->requested());
    EXPECT_TRUE(ledger.cancel(operation->id));
    EXPECT_TRUE(job->cancellation->requested());
}

TEST_F(Ledger, AnEndedOperationKeepsItsOutcome) {
    const auto operation = add();
    started(0)->end.set_value(completed());
    waitForEnd(operation->id);
    EXPECT_TRUE(ledger.cancel(operation->id));
    EXPECT_TRUE(ledger.snapshot(operation->id)->completed);
    EXPECT_FALSE(ledger.snapshot(operation->id)->cancelled);
}

TEST_F(Ledger, CancelsAndRemovesByClient) {
    add("/running", {9, 9});
    started(0);
    const auto mine = add("/a", {1, 1});
    const auto other = add("/b", {2, 2});
    ledger.cancelAllOf({1, 1});
    EXPECT_TRUE(ledger.snapshot(mine->id)->cancelled);
    EXPECT_FALSE(ledger.snapshot(other->id)->cancelled);
    ledger.removeAllOf({2, 2});
    EXPECT_FALSE(ledger.snapshot(other->id));
    EXPECT_TRUE(ledger.snapshot(mine->id));
}

TEST_F(Ledger, AFullQueueRefuses) {
    add();
    started(0);
    for (std::size_t i = 0; i < OperationLedger::kLongestQueue; ++i) {
        ASSERT_TRUE(add());
    }
    EXPECT_FALSE(add());
    EXPECT_EQ(failure->cause, FailureCause::QueueFull);
    EXPECT_EQ(ledger.counts().queued, OperationLedger::kLongestQueue);
}

TEST_F(Ledger, ClosingFailsWaitingOperationsAndLetsRunningOnesFinish) {
    const auto running = add();
    const auto waiting = add();
    const auto job = started(0);
    ledger.close();
    EXPECT_EQ(ledger.snapshot(waiting->id)->error->code(), 1);
    EXPECT_FALSE(ledger.snapshot(running->id)->ended);
    EXPECT_FALSE(add());
    EXPECT_EQ(failure->cause, FailureCause::ShuttingDown);
    job->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(running->id).completed);
}

TEST_F(Ledger, ResultsAreDroppedTenMinutesAfterTheEnd) {
    const auto operation = add("/s", {5, 5});
    started(0)->end.set_value(completed());
    waitForEnd(operation->id);
    seconds += 599;
    EXPECT_TRUE(ledger.removeOld().empty());
    seconds += 1;
    EXPECT_EQ(ledger.removeOld(), (std::vector<ClientKey>{{5, 5}}));
    EXPECT_FALSE(ledger.snapshot(operation->id));
}

TEST_F(Ledger, CountsEndsThatNoClientHasBeenTold) {
    const auto operation = add();
    started(0)->end.set_value(completed());
    waitForEnd(operation->id);
    EXPECT_EQ(ledger.counts().untold, 1U);
    (void)ledger.tell(operation->id);
    EXPECT_EQ(ledger.counts().untold, 0U);
    EXPECT_EQ(ledger.counts().finished, 1U);
}

TEST_F(Ledger, RecordsShareNothingThatChanges) {
    const auto operation = add();
    started(0)->end.set_value(completed());
    waitForEnd(operation->id);
    const auto first = *ledger.record(operation->id);
    // One thread archives its reply while another asks for the record; the thread sanitizer watches.
    std::thread archiver([&] {
        for (int i = 0; i < 100; ++i) {
            (void)first->convertToData();
        }
    });
    for (int i = 0; i < 100; ++i) {
        (void)ledger.record(operation->id);
    }
    archiver.join();
    first->arguments()->set("made", false);
    EXPECT_EQ((*(*ledger.record(operation->id))->arguments())["made"], Value(true));
    EXPECT_FALSE(operation->request->arguments()->find("made"));
}

}  // namespace
}  // namespace krv::server
