#include <gtest/gtest.h>

#include "QueueFixture.h"
#include <MediaServer/Operations/OperationQueue.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

TEST_F(Queue, CompletesAndKeepsTheResult) {
    const auto operation = add();
    const auto job = begun(0);
    job->report(0.25);
    EXPECT_NEAR(queue.snapshot(operation->id)->progress, 0.25, 1e-9);
    job->end.set_value(completed());
    const auto state = waitForEnd(operation->id);
    EXPECT_TRUE(state.completed);
    EXPECT_EQ(state.progress, 1.0);
    const auto record = *queue.finishedRecord(operation->id);
    EXPECT_TRUE(record->completed());
    EXPECT_EQ((*record->arguments())["made"], Value(true));
    EXPECT_EQ(record->encodingSourceFilename(), "/s");
    EXPECT_TRUE(queue.remove(operation->id));
    EXPECT_FALSE(queue.remove(operation->id));
    EXPECT_FALSE(queue.snapshot(operation->id));
}

TEST_F(Queue, ProgressNeverGoesBackwardsAndIsOneOnlyAtTheEnd) {
    const auto operation = add();
    const auto job = begun(0);
    job->report(0.5);
    job->report(0.2);
    EXPECT_NEAR(queue.snapshot(operation->id)->progress, 0.5, 1e-9);
    job->report(7.0);
    EXPECT_LT(queue.snapshot(operation->id)->progress, 1.0);
    job->report(-1.0);
    EXPECT_LT(queue.snapshot(operation->id)->progress, 1.0);
}

TEST_F(Queue, WhatWaitsCreepsWhileWhatRunsMovesAndNotOtherwise) {
    add();
    const auto waiting = add();
    const auto job = begun(0);
    EXPECT_EQ(queue.snapshot(waiting->id)->progress, 0.0);
    seconds += 10;
    EXPECT_EQ(queue.snapshot(waiting->id)->progress, 0.0);
    job->report(0.1);
    const double crept = queue.snapshot(waiting->id)->progress;
    EXPECT_GE(crept, 10 * 1e-6);
    job->report(0.1);
    EXPECT_EQ(queue.snapshot(waiting->id)->progress, crept);
}

TEST_F(Queue, WhatCreptWhileWaitingMovesOnFromThereWhenItRuns) {
    add();
    const auto second = add();
    const auto job = begun(0);
    seconds += 7200;
    job->report(0.5);
    const double crept = queue.snapshot(second->id)->progress;
    job->end.set_value(completed());
    const auto next = begun(1);
    next->report(0.001);
    EXPECT_GT(queue.snapshot(second->id)->progress, crept);
}

TEST_F(Queue, AFailureIsKept) {
    const auto operation = add();
    begun(0)->end.set_value({Outcome::Kind::Failed, makeError(OperationErrorCode::WorkerFailed, "d", "r"), nullptr});
    const auto state = waitForEnd(operation->id);
    EXPECT_FALSE(state.completed);
    EXPECT_EQ(state.error->code(), 7);
}

TEST_F(Queue, CancellingWhatWaitsEndsItAtOnce) {
    add();
    const auto waiting = add();
    begun(0);
    EXPECT_EQ(queue.names().size(), 2U);
    EXPECT_TRUE(queue.cancel(waiting->id));
    EXPECT_TRUE(queue.snapshot(waiting->id)->cancelled);
    EXPECT_TRUE(queue.snapshot(waiting->id)->ended);
    EXPECT_EQ(queue.names().size(), 1U);
    EXPECT_FALSE(queue.cancel("unknown"));
}

TEST_F(Queue, CancellingWhatRunsAsksTheWork) {
    const auto operation = add();
    const auto job = begun(0);
    EXPECT_FALSE(job->operation->cancellation.requested());
    EXPECT_TRUE(queue.cancel(operation->id));
    EXPECT_TRUE(job->operation->cancellation.requested());
}

TEST_F(Queue, WhatHasEndedStaysAsItEnded) {
    const auto operation = add();
    begun(0)->end.set_value(completed());
    waitForEnd(operation->id);
    EXPECT_TRUE(queue.cancel(operation->id));
    EXPECT_TRUE(queue.snapshot(operation->id)->completed);
    EXPECT_FALSE(queue.snapshot(operation->id)->cancelled);
}

TEST_F(Queue, CancelsAndForgetsByClient) {
    add("/running", {9, 9});
    begun(0);
    const auto mine = add("/a", {1, 1});
    const auto other = add("/b", {2, 2});
    queue.cancelAllOf({1, 1});
    EXPECT_TRUE(queue.snapshot(mine->id)->cancelled);
    EXPECT_FALSE(queue.snapshot(other->id)->cancelled);
    queue.removeAllOf({2, 2});
    EXPECT_FALSE(queue.snapshot(other->id));
    EXPECT_TRUE(queue.snapshot(mine->id));
}

TEST_F(Queue, AFullQueueTurnsAway) {
    add();
    begun(0);
    for (std::size_t i = 0; i < OperationQueue::kLongestQueue; ++i) {
        ASSERT_TRUE(add());
    }
    EXPECT_EQ(add(), nullptr);
    EXPECT_EQ(queue.counts().queued, OperationQueue::kLongestQueue);
}

TEST_F(Queue, ClosingSendsWhatWaitsElsewhereAndLetsWhatRunsFinish) {
    const auto running = add();
    const auto waiting = add();
    const auto job = begun(0);
    queue.close();
    EXPECT_EQ(queue.snapshot(waiting->id)->error->code(), 1);
    EXPECT_FALSE(queue.snapshot(running->id)->ended);
    EXPECT_EQ(add(), nullptr);
    job->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(running->id).completed);
}

TEST_F(Queue, ResultsAreDroppedTenMinutesAfterTheEnd) {
    const auto operation = add("/s", {5, 5});
    begun(0)->end.set_value(completed());
    waitForEnd(operation->id);
    seconds += 599;
    EXPECT_TRUE(queue.removeOld().empty());
    seconds += 1;
    EXPECT_EQ(queue.removeOld(), (std::vector<ClientKey>{{5, 5}}));
    EXPECT_FALSE(queue.snapshot(operation->id));
}

TEST_F(Queue, CountsWhatClientsHaveNotBeenTold) {
    const auto operation = add();
    begun(0)->end.set_value(completed());
    waitForEnd(operation->id);
    EXPECT_EQ(queue.counts().untold, 1U);
    (void)queue.tell(operation->id);
    EXPECT_EQ(queue.counts().untold, 0U);
    EXPECT_EQ(queue.counts().finished, 1U);
}

}  // namespace
}  // namespace krv::server
