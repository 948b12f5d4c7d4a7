// Which lane an operation runs on, and that it is seen to live on each.
#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "QueueFixture.h"

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using Lane = OperationQueue::Lane;

TEST_F(Queue, MetadataAndInterestingTimesAreShortAndAllElseIsLong) {
    for (const OperationTypeInfo& info : operationTypes()) {
        const bool isShort = info.type == OpProvideMetadata || info.type == OpGetInterestingTimes;
        EXPECT_EQ(OperationQueue::laneFor(info.type), isShort ? Lane::Short : Lane::Long) << info.name;
    }
}

TEST_F(Queue, ShortWorkRunsWhileEveryLongLaneIsHeld) {
    const auto running = add();
    begun(0);
    const auto waiting = add();
    const auto metadata = addShort();
    const auto job = begun(1);
    EXPECT_EQ(job->operation, metadata.get());
    EXPECT_EQ(queue.counts().running, 2U);
    EXPECT_EQ(queue.counts().queued, 1U);
    job->end.set_value(completed());
    EXPECT_TRUE(waitForEnd(metadata->id).completed);
    EXPECT_FALSE(queue.snapshot(waiting->id)->ended);
    EXPECT_FALSE(queue.snapshot(running->id)->ended);
}

TEST_F(Queue, ShortWorkRunsOneAfterAnother) {
    std::vector<OperationRef> added;
    for (int i = 0; i < 20; ++i) {
        added.push_back(addShort());
    }
    for (std::size_t i = 0; i < added.size(); ++i) {
        const auto job = begun(i);
        EXPECT_EQ(job->operation, added[i].get());
        EXPECT_EQ(queue.counts().running, 1U);
        job->end.set_value(completed());
    }
    waitForEnd(added.back()->id);
    EXPECT_EQ(mostAtOnce, 1);
}

TEST_F(Queue, LongWorkNeverTakesTheShortLane) {
    add();
    const auto held = begun(0);
    const auto waiting = add();
    // Every time the short lane has become free, it passes by the long one that has waited before it.
    for (std::size_t i = 1; i <= 20; ++i) {
        const auto metadata = addShort();
        const auto job = begun(i);
        EXPECT_EQ(job->operation, metadata.get());
        job->end.set_value(completed());
        waitForEnd(metadata->id);
    }
    held->end.set_value(completed());
    EXPECT_EQ(begun(21)->operation, waiting.get());
}

TEST_F(Queue, WhatWaitsCreepsByWhatMovesOnItsOwnKindOfLaneOnly) {
    add();
    const auto longJob = begun(0);
    addShort();
    const auto shortJob = begun(1);
    const auto longWaiting = add();
    const auto shortWaiting = addShort();
    seconds += 10;
    shortJob->report(0.1);
    EXPECT_GE(queue.snapshot(shortWaiting->id)->progress, 10 * 1e-6);
    EXPECT_EQ(queue.snapshot(longWaiting->id)->progress, 0.0);
    const double crept = queue.snapshot(shortWaiting->id)->progress;
    longJob->report(0.1);
    EXPECT_GE(queue.snapshot(longWaiting->id)->progress, 10 * 1e-6);
    EXPECT_EQ(queue.snapshot(shortWaiting->id)->progress, crept);
}

TEST_F(Queue, WhatWaitsCreepsByWhatEndsAheadOfItWithoutEverReporting) {
    for (int i = 0; i < 4; ++i) {
        addShort();
    }
    const auto last = addShort();
    double before = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto job = begun(i);
        seconds += 10;
        job->end.set_value(completed());
        waitForEnd(job->operation->id);
        EXPECT_GE(queue.snapshot(last->id)->progress, before + 10 * 1e-6);
        before = queue.snapshot(last->id)->progress;
    }
}

TEST_F(Queue, NamesAndCountsKnowNoLanes) {
    add();
    begun(0);
    addShort();
    begun(1);
    add();
    addShort();
    EXPECT_EQ(queue.names(), (std::vector<std::string>{"Encode video", "Get poster frame and metadata", "Encode video",
                                                       "Get poster frame and metadata"}));
    EXPECT_EQ(queue.counts().queued, 2U);
    EXPECT_EQ(queue.counts().running, 2U);
}

TEST_F(Queue, TheLongestQueueCountsBothKinds) {
    add();
    begun(0);
    addShort();
    begun(1);
    for (std::size_t i = 0; i < OperationQueue::kLongestQueue / 2; ++i) {
        ASSERT_TRUE(add());
        ASSERT_TRUE(addShort());
    }
    EXPECT_EQ(add(), nullptr);
    EXPECT_EQ(addShort(), nullptr);
}

TEST_F(Queue, ClosingAndCancellingReachBothKinds) {
    addShort();
    begun(0);
    const auto cancelled = addShort();
    const auto closed = addShort();
    EXPECT_TRUE(queue.cancel(cancelled->id));
    EXPECT_TRUE(queue.snapshot(cancelled->id)->cancelled);
    queue.close();
    EXPECT_EQ(queue.snapshot(closed->id)->error->code(), 1);
    EXPECT_EQ(queue.counts().queued, 0U);
}

/// The number that a client compares, as the reply carries it.
float seenByClient(const OperationQueue::Snapshot& state) {
    return std::min(static_cast<float>(state.progress), 0.99999F);
}

TEST_F(Queue, AClientSeesWhatWaitsMoveInEveryMinuteForDays) {
    add();
    const auto job = begun(0);
    const auto waiting = add();
    float seen = 0.0F;
    for (int minute = 0; minute < 4 * 24 * 60; ++minute) {
        seconds += 60;
        job->report(0.5);
        const float now = seenByClient(*queue.snapshot(waiting->id));
        ASSERT_GT(now, seen) << minute;
        seen = now;
    }
}

/// However far it is, and even when the worker has said that it is done.
TEST_F(Queue, AClientSeesWhatRunsMoveInEveryMinuteFromAnyPointOn) {
    std::size_t index = 0;
    for (const double reached :
         {0.0, 1e-6, 0.1, 0.25, 0.5, 0.75, 0.9, 0.98, 0.99, 0.999, 0.9999, 0.99999, 0.999999, 1.0}) {
        const auto operation = add();
        const auto job = begun(index++);
        job->report(reached);
        float seen = seenByClient(*queue.snapshot(operation->id));
        for (int minute = 0; minute < 6 * 60; ++minute) {
            seconds += 60;
            job->report(reached);
            const float now = seenByClient(*queue.snapshot(operation->id));
            ASSERT_GT(now, seen) << reached << " after " << minute << " minutes";
            ASSERT_LT(now, 1.0F);
            seen = now;
        }
        job->end.set_value(completed());
        EXPECT_EQ(waitForEnd(operation->id).progress, 1.0);
    }
}

TEST_F(Queue, WhatRunsStandsStillWhileItsWorkerSaysNothing) {
    const auto operation = add();
    const auto job = begun(0);
    job->report(0.5);
    const double before = queue.snapshot(operation->id)->progress;
    seconds += 3600;
    EXPECT_EQ(queue.snapshot(operation->id)->progress, before);
}

}  // namespace
}  // namespace krv::server
