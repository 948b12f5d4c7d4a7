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

TEST_F(Ledger, ForeseesTheEndForAClientThatAsksSeldom) {
    using std::chrono_literals::operator""ms;
    const auto operation = add();
    const auto job = started(0);
    job->report(0.5);
    EXPECT_FALSE(ledger.endsWithin(400ms, operation->id)) << "nobody has asked";
    (void)ledger.tell(operation->id);
    job->report(0.8);
    EXPECT_FALSE(ledger.endsWithin(400ms, operation->id)) << "it was asked a moment ago";
    seconds += 1;
    EXPECT_FALSE(ledger.endsWithin(400ms, operation->id)) << "another two thirds of a second";
    job->report(0.9);
    EXPECT_TRUE(ledger.endsWithin(400ms, operation->id));
    (void)ledger.tell(operation->id);
    seconds += 1;
    EXPECT_FALSE(ledger.endsWithin(400ms, operation->id)) << "it does not advance";
    job->end.set_value(completed());
    (void)waitForEnd(operation->id);
    EXPECT_FALSE(ledger.endsWithin(400ms, operation->id)) << "it has ended";
    EXPECT_FALSE(ledger.endsWithin(400ms, "nobody"));
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

TEST_F(Ledger, RequestsThatTakeTooMuchMemoryAreRefused) {
    add();
    started(0);
    const std::string path = "/" + std::string(std::size_t{100} << 20, 's');
    EXPECT_TRUE(add(path.c_str()));
    EXPECT_TRUE(add(path.c_str()));
    EXPECT_FALSE(add(path.c_str()));
    EXPECT_EQ(failure->cause, FailureCause::QueueFull);
    EXPECT_TRUE(add());
}

TEST_F(Ledger, KeepsOnlyTheArgumentsThatTheOperationKnows) {
    const auto request = KRVOperationBase::encodeVideoOperation("/s", "/d");
    request->arguments()->set("another", std::string(1000, 'x'));
    const auto operation = add(request, {1, 1});
    started(0)->end.set_value(completed());
    waitForEnd(operation->id);
    const auto record = *ledger.record(operation->id);
    EXPECT_EQ(record->encodingSourceFilename(), "/s");
    EXPECT_EQ(record->encodingDestinationFilename(), "/d");
    EXPECT_FALSE(record->arguments()->find("another"));
}

TEST_F(Ledger, CountsWhatItHolds) {
    const auto first = add();
    const auto job = started(0);
    const auto second = add();
    (void)ledger.addTimed({.timeToLive = std::chrono::seconds(10), .completes = true}, {1, 1});
    auto counts = ledger.counts();
    EXPECT_EQ(counts.queued, 1U);
    EXPECT_EQ(counts.running, 2U);
    EXPECT_EQ(counts.finished, 0U);
    seconds += 10;
    EXPECT_EQ(ledger.counts().running, 1U);
    job->end.set_value(completed());
    waitForEnd(first->id);
    started(1);
    counts = ledger.counts();
    EXPECT_EQ(counts.queued, 0U);
    EXPECT_EQ(counts.running, 1U);
    EXPECT_EQ(counts.finished, 1U);
    EXPECT_EQ(counts.untold, 1U);
    EXPECT_GT(counts.finishedBytes, 0U);
    (void)ledger.tell(first->id);
    EXPECT_EQ(ledger.counts().untold, 0U);
    EXPECT_TRUE(ledger.remove(second->id));  // while it runs
    EXPECT_TRUE(ledger.remove(first->id));
    counts = ledger.counts();
    EXPECT_EQ(counts.running, 0U);
    EXPECT_EQ(counts.finished, 0U);
}

TEST_F(Ledger, ReportsAClientWhoseLastOperationWasRemoved) {
    const auto operation = add("/s", {5, 5});
    const auto other = add("/s", {6, 6});
    EXPECT_TRUE(ledger.remove(operation->id));
    EXPECT_EQ(ledger.removeOld(), (std::vector<ClientKey>{{5, 5}}));
    EXPECT_TRUE(ledger.removeOld().empty());
    EXPECT_TRUE(ledger.snapshot(other->id));
}

/// A ledger that may keep a megabyte of results, and operations that end with a result of 200,000 bytes.
class ResultBudget : public testing::Test {
protected:
    std::string finishOne() {
        std::optional<Failure> failure;
        const auto id = ledger.add(KRVOperationBase::provideMetadataFor("/s"), {1, 1}, failure);
        const OperationRef operation = ledger.takeNext(OperationLedger::Duration::Short);
        auto record = std::make_shared<KRVOperationBase>();
        record->arguments()->set("poster", std::string(200'000, 'p'));
        ledger.finish(*operation, {Outcome::Kind::Completed, nullptr, std::move(record)});
        return *id;
    }
    bool isKnown(const std::string& id) { return ledger.snapshot(id).has_value(); }

    OperationLedger ledger{[] {}, &std::chrono::steady_clock::now, 1'000'000};
};

TEST_F(ResultBudget, DropsTheOldestResultsThatWereFetched) {
    const std::string untold = finishOne();
    const std::string told = finishOne();
    (void)ledger.tell(told);
    const std::string fetched = finishOne();
    const std::string fetchedLater = finishOne();
    (void)ledger.record(fetched);
    (void)ledger.record(fetchedLater);
    const std::string newest = finishOne();
    EXPECT_TRUE(isKnown(untold));
    EXPECT_TRUE(isKnown(told));
    EXPECT_FALSE(isKnown(fetched));
    EXPECT_TRUE(isKnown(fetchedLater));
    EXPECT_TRUE(isKnown(newest));
    EXPECT_LE(ledger.counts().finishedBytes, 1'000'000U);
}

TEST_F(ResultBudget, DropsTheOldestResultWhoseEndIsKnownIfNoneWasFetched) {
    const std::string untold = finishOne();
    const std::string told = finishOne();
    (void)ledger.tell(told);
    finishOne();
    finishOne();
    finishOne();
    EXPECT_TRUE(isKnown(untold));
    EXPECT_FALSE(isKnown(told));
}

TEST_F(ResultBudget, DropsTheOldestResultIfNobodyAsks) {
    const std::string oldest = finishOne();
    std::string newest;
    for (int i = 0; i < 100; ++i) {
        newest = finishOne();
        EXPECT_LE(ledger.counts().finishedBytes, 1'000'000U);
    }
    EXPECT_FALSE(isKnown(oldest));
    EXPECT_TRUE(isKnown(newest));
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
