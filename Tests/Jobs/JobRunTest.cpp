// The course of a job against a server that the test plays, in virtual time.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>
#include <KRVQTProcessClient/Jobs/JobRun.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

#include "JobFixture.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Kind = Failure::Kind;
using State = Progress::State;

const char* const kID = "the-identifier";

class JobRuns : public JobFixture {
protected:
    /// Starts a job that converts in.mov, with a server on port 8000.
    void start() {
        link.serverIsOn(8000);
        startWithoutServer();
    }
    void startWithoutServer() {
        run->start();
        http.runReady();
    }

    static HTTPResponse accepted() {
        const auto record = KRVOperationBase::encodeVideoOperation("/in.mov", "/out.mp4");
        record->setUniqueID(kID);
        return holding(*record);
    }
    static HTTPResponse state(float progress, bool completed = false, bool cancelled = false,
                              std::optional<int> position = {}) {
        const auto record = KRVOperationBase::progressAndCompletionOperation(kID);
        record->setProgress(progress, completed);
        record->setCancelled(cancelled);
        if (position) {
            record->arguments()->set(kArgumentQueuePosition, *position);
        }
        return holding(*record);
    }

    /// Lets the server accept the operation, after which its state is asked for.
    void accept() {
        reply(OpEncodeVideo, accepted());
        ASSERT_EQ(pendingType(), OpProgressAndCompletion);
    }
    void askAgain() { http.advanceBy(1s); }
    void complete() {
        reply(OpProgressAndCompletion, state(1, true));
        reply(OpReturnResult, accepted());
    }

    [[nodiscard]] State lastState() const { return job->progress().state; }

    int ends = 0;
    std::shared_ptr<JobRun> run = [this] {
        auto made = std::make_shared<JobRun>(services(), job,
                                             *planOf(ConvertOptions{.source = "/in.mov", .destination = "/out.mp4"}),
                                             JobLimits{.stall = 60s, .patience = 20s}, [this] { ++ends; });
        job->onCancel([this] { run->cancel(); });
        return made;
    }();
};

TEST_F(JobRuns, SendsFollowsAndFetches) {
    start();
    EXPECT_EQ(pendingRecord()->encodingSourceFilename(), "/in.mov");
    accept();
    EXPECT_EQ(pendingRecord()->uniqueID(), kID);
    reply(OpProgressAndCompletion, state(0.5));
    EXPECT_EQ(job->progress().fraction, 0.5);
    EXPECT_EQ(lastState(), State::Running);
    askAgain();
    reply(OpProgressAndCompletion, state(1, true));
    EXPECT_EQ(lastState(), State::Finishing);
    EXPECT_FALSE(outcome);
    reply(OpReturnResult, accepted());
    ASSERT_TRUE(succeeded());
    EXPECT_EQ(std::static_pointer_cast<const Converted>(outcome->value)->path, "/out.mp4");
    EXPECT_EQ(pendingType(), OpRemoveReturnResult) << "the server may forget the result";
    EXPECT_EQ(ends, 1);
}

TEST_F(JobRuns, WorkThatEndsWithTheFirstReplyIsNotFollowed) {
    start();
    const auto record = KRVOperationBase::encodeVideoOperation("/in.mov", "/out.mp4");
    record->setUniqueID(kID);
    record->setProgress(1, true);
    reply(OpEncodeVideo, holding(*record));
    EXPECT_EQ(pendingType(), OpReturnResult);
}

TEST_F(JobRuns, EachRequestHasATimeOut) {
    start();
    EXPECT_EQ(http.pending().front().request.timeout, 60s);
    accept();
    EXPECT_EQ(http.pending().front().request.timeout, 5s);
}

TEST_F(JobRuns, AResponseThatWasCutOffIsALoss) {
    start();
    HTTPResponse cut = accepted();
    cut.error = "transfer closed with bytes remaining to read";
    reply(OpEncodeVideo, std::move(cut));
    EXPECT_THAT(link.losses, ElementsAre(8000));
}

TEST_F(JobRuns, NothingIsSentBeforeAServerResponds) {
    startWithoutServer();
    EXPECT_THAT(http.pending(), IsEmpty());
    link.tellReason("none is running yet");
    EXPECT_EQ(lastState(), State::WaitingForServer);
    EXPECT_EQ(job->progress().waitingFor, "none is running yet");
    link.serverIsOn(8003);
    http.runReady();
    EXPECT_EQ(http.pending().front().request.url, "http://localhost:8003");
}

TEST_F(JobRuns, FailsWithTheReasonWhyThereIsNoServer) {
    startWithoutServer();
    link.answerSoon(cannotStart("there is no bundle"));
    http.runReady();
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Unreachable);
    EXPECT_EQ(failure()->cause(), "there is no bundle");
}

TEST_F(JobRuns, AnErrorOfTheServerIsTheJobsFailure) {
    start();
    reply(OpEncodeVideo, erroneous(OperationErrorCode::SameFile));
    EXPECT_EQ(failure()->kind(), Kind::Destination);
    EXPECT_EQ(failure()->code(), 10);
}

TEST_F(JobRuns, AnErrorWhileItRunsIsTheJobsFailure) {
    start();
    accept();
    reply(OpProgressAndCompletion, erroneous(OperationErrorCode::UnusableSource));
    EXPECT_EQ(failure()->kind(), Kind::NotMedia);
}

TEST_F(JobRuns, AnOperationThatSomebodyElseCancelledIsCancelled) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5, false, true));
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    EXPECT_EQ(failure()->message(), "Converting in.mov was cancelled.");
}

TEST_F(JobRuns, ThePositionInTheQueueIsReported) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0, false, false, 3));
    EXPECT_EQ(lastState(), State::Queued);
    EXPECT_EQ(job->progress().position, 3);
    EXPECT_EQ(job->progress().elapsed, Seconds(0));
    askAgain();
    reply(OpProgressAndCompletion, state(0.25F));
    EXPECT_EQ(lastState(), State::Running);
    EXPECT_EQ(job->progress().position, std::nullopt);
}

TEST_F(JobRuns, TheRemainingTimeIsEstimated) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.001F));
    EXPECT_EQ(job->progress().remaining, std::nullopt);
    http.advanceBy(10s);
    reply(OpProgressAndCompletion, state(0.5));
    EXPECT_NEAR(job->progress().elapsed.count(), 10, 0.01);
    ASSERT_TRUE(job->progress().remaining);
    EXPECT_NEAR(job->progress().remaining->count(), 10, 0.01);
}

TEST_F(JobRuns, WaitingInTheQueueDoesNotCountIntoTheRemainingTime) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0, false, false, 3));
    http.advanceBy(600s);
    reply(OpProgressAndCompletion, state(0.001F));
    EXPECT_EQ(job->progress().elapsed, Seconds(0));
    http.advanceBy(10s);
    reply(OpProgressAndCompletion, state(0.5));
    EXPECT_NEAR(job->progress().elapsed.count(), 10, 0.01);
    ASSERT_TRUE(job->progress().remaining);
    EXPECT_NEAR(job->progress().remaining->count(), 10, 0.1);
}

TEST_F(JobRuns, ProgressDoesNotGoBackWithinAnAttempt) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    askAgain();
    reply(OpProgressAndCompletion, state(0.4F));
    EXPECT_EQ(job->progress().fraction, 0.5);
}

TEST_F(JobRuns, ProgressStaysBetweenNothingAndAll) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(1.5));
    EXPECT_EQ(job->progress().fraction, 1);
}

TEST_F(JobRuns, TheLastMomentsAreFinishing) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.999F));
    EXPECT_EQ(lastState(), State::Finishing);
    EXPECT_FALSE(outcome);
}

TEST_F(JobRuns, APositionThatIsNoNumberIsNone) {
    start();
    accept();
    const auto strange = KRVOperationBase::progressAndCompletionOperation(kID);
    strange->arguments()->set(kArgumentQueuePosition, "first");
    reply(OpProgressAndCompletion, holding(*strange));
    EXPECT_EQ(lastState(), State::Running);
    EXPECT_EQ(job->progress().position, std::nullopt);
}

TEST_F(JobRuns, AnErrorOfAnotherDomainIsNotAForgottenOperation) {
    start();
    accept();
    const auto record = KRVOperationBase::progressAndCompletionOperation(kID);
    record->setError(Error::make("Elsewhere", static_cast<std::int64_t>(OperationErrorCode::UnknownOperation),
                                 {{NSLocalizedDescriptionKey, "It failed elsewhere."}}));
    reply(OpProgressAndCompletion, holding(*record));
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->message(), "It failed elsewhere.");
}

TEST_F(JobRuns, AnErrorInPlaceOfTheResultIsTheJobsFailure) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(1, true));
    reply(OpReturnResult, erroneous(OperationErrorCode::UnwritableDestination));
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->code(), 5);
}

TEST_F(JobRuns, AnExceptionEndsTheJob) {
    JobPlan plan = *planOf(ConvertOptions{.source = "/in.mov", .destination = "/out.mp4"});
    plan.makeRecord = []() -> KRVOperationBase::Ref { throw Exception("Broken", "no record can be made"); };
    run = std::make_shared<JobRun>(services(), job, std::move(plan), JobLimits{.stall = 60s, .patience = 20s}, [] {});
    start();
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Internal);
    EXPECT_EQ(failure()->cause(), "no record can be made");
}

// Losing the server.

TEST_F(JobRuns, ABrokenConnectionToTheSameServerLosesNothing) {
    start();
    accept();
    reply(OpProgressAndCompletion, broken());
    EXPECT_THAT(link.losses, ElementsAre(8000));
    EXPECT_EQ(lastState(), State::WaitingForServer);
    link.serverIsOn(8000);
    http.runReady();
    EXPECT_EQ(pendingType(), OpProgressAndCompletion);
    complete();
    EXPECT_TRUE(succeeded());
}

TEST_F(JobRuns, ANewServerGetsTheOperationAgain) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    askAgain();
    reply(OpProgressAndCompletion, broken());
    link.serverIsOn(8001);
    http.runReady();
    reply(OpProgressAndCompletion, erroneous(OperationErrorCode::UnknownOperation));
    EXPECT_EQ(http.pending().front().request.url, "http://localhost:8001");
    accept();
    reply(OpProgressAndCompletion, state(0.1F));
    EXPECT_EQ(job->progress().attempt, 2);
    EXPECT_NEAR(job->progress().fraction, 0.1, 0.001) << "the work starts over";
    askAgain();
    complete();
    EXPECT_TRUE(succeeded());
}

TEST_F(JobRuns, ARepeatedOperationIsANewOneWithItsOwnTime) {
    start();
    const auto first = pendingRecord();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    http.advanceBy(10s);
    EXPECT_GE(job->progress().elapsed, Seconds(0));
    reply(OpProgressAndCompletion, erroneous(OperationErrorCode::UnknownOperation));
    EXPECT_FALSE(pendingRecord()->uniqueID()) << "the identifier was that of the lost operation";
    accept();
    reply(OpProgressAndCompletion, state(0.01F));
    EXPECT_LT(job->progress().elapsed, Seconds(1));
}

TEST_F(JobRuns, AJobAsksTheServerThatAnotherJobHasFound) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    link.serverIsOn(8005);
    askAgain();
    EXPECT_EQ(http.pending().front().request.url, "http://localhost:8005");
    link.lost(8005);
    reply(OpProgressAndCompletion, state(0.6F));
    askAgain();
    EXPECT_EQ(http.pending().front().request.url, "http://localhost:8005") << "as long as none is known";
}

TEST_F(JobRuns, AResultThatIsLostWithItsServerIsMadeAgain) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(1, true));
    reply(OpReturnResult, broken());
    link.serverIsOn(8001);
    http.runReady();
    reply(OpReturnResult, erroneous(OperationErrorCode::UnknownOperation));
    EXPECT_EQ(pendingType(), OpEncodeVideo);
}

TEST_F(JobRuns, TheThirdLossIsTheLast) {
    start();
    for (int attempt = 1; attempt <= 3; ++attempt) {
        ASSERT_FALSE(outcome);
        ASSERT_EQ(pendingType(), OpEncodeVideo);
        reply(OpEncodeVideo, broken());
        link.serverIsOn(8000 + attempt);
        http.runReady();
    }
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::ServerLost);
    EXPECT_EQ(failure()->cause(), "Connection refused");
    EXPECT_THAT(http.pending(), IsEmpty());
}

TEST_F(JobRuns, AServerThatForgetsThreeTimesIsLost) {
    start();
    for (int attempt = 1; attempt <= 3; ++attempt) {
        accept();
        reply(OpProgressAndCompletion, erroneous(OperationErrorCode::UnknownOperation));
    }
    EXPECT_EQ(failure()->kind(), Kind::ServerLost);
}

TEST_F(JobRuns, AServerThatTakesNoWorkNowIsAskedAgainWithoutCountingIt) {
    start();
    for (int i = 0; i < 5; ++i) {
        reply(OpEncodeVideo, erroneous(OperationErrorCode::CannotAcceptWork));
        EXPECT_EQ(lastState(), State::WaitingForServer);
        EXPECT_EQ(job->progress().waitingFor, "Cannot convert in.mov.");
        http.advanceBy(240ms);
        EXPECT_THAT(http.pending(), IsEmpty()) << "the server has a moment to breathe";
        http.advanceBy(10ms);
    }
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    EXPECT_EQ(job->progress().attempt, 1);
    askAgain();
    complete();
    EXPECT_TRUE(succeeded());
}

TEST_F(JobRuns, ThePatienceWithAServerThatTakesNoWorkEnds) {
    start();
    for (int i = 0; i < 100 && !outcome; ++i) {
        reply(OpEncodeVideo, erroneous(OperationErrorCode::CannotAcceptWork));
        http.advanceBy(250ms);
    }
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Unreachable);
    EXPECT_EQ(failure()->code(), 1);
}

TEST_F(JobRuns, ThePatienceBeginsAnewWithEachAttempt) {
    start();
    reply(OpEncodeVideo, erroneous(OperationErrorCode::CannotAcceptWork));
    http.advanceBy(250ms);
    accept();
    http.advanceBy(30s);
    reply(OpProgressAndCompletion, erroneous(OperationErrorCode::UnknownOperation));
    reply(OpEncodeVideo, erroneous(OperationErrorCode::CannotAcceptWork));
    EXPECT_FALSE(outcome);
    http.advanceBy(250ms);
    EXPECT_EQ(pendingType(), OpEncodeVideo);
}

TEST_F(JobRuns, AResponseThatIsNotARecordIsNotRepeated) {
    start();
    reply(OpEncodeVideo, {.body = Data(3), .status = 500, .error = {}});
    EXPECT_EQ(failure()->kind(), Kind::Internal);
    EXPECT_THAT(failure()->cause(), HasSubstr("HTTP status 500"));
}

TEST_F(JobRuns, TheTransportReportsAServerOfAnotherUserAsLost) {
    start();
    reply(OpEncodeVideo, {.body = {}, .status = 0, .error = "another user's program listens on that port"});
    EXPECT_THAT(link.losses, ElementsAre(8000));
    EXPECT_EQ(link.waiters(), 1U);
}

// Standstill.

TEST_F(JobRuns, WorkThatStandsStillIsGivenUpAndCancelled) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    for (int i = 0; i < 100 && !outcome; ++i) {
        askAgain();
        reply(OpProgressAndCompletion, state(0.5));
    }
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Stalled);
    EXPECT_EQ(pendingType(), OpCancelOperation);
}

TEST_F(JobRuns, AServerThatDoesNotReplyIsAskedAgainUntilTheStallTimeOut) {
    start();
    accept();
    const auto begin = clock.now();
    while (!outcome && clock.now() - begin < 5min) {
        http.advanceBy(5s);
        reply(OpProgressAndCompletion, {.body = {}, .status = 0, .error = "Timeout was reached"});
    }
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Stalled);
    EXPECT_THAT(link.losses, IsEmpty());
    EXPECT_EQ(clock.now() - begin, 65s);
    EXPECT_EQ(pendingType(), OpCancelOperation) << "it stays in the server's socket";
}

TEST_F(JobRuns, OnlySilenceWithoutAPauseCountsAsStandstill) {
    start();
    accept();
    for (int i = 0; i < 30 && !outcome; ++i) {  // 150 s, in which the work goes on
        http.advanceBy(5s);
        reply(OpProgressAndCompletion, {.body = {}, .status = 0, .error = "Timeout was reached"});
        reply(OpProgressAndCompletion, state(0.01F * static_cast<float>(i + 1)));
        askAgain();
    }
    EXPECT_FALSE(outcome);
}

TEST_F(JobRuns, AServerThatContinuesAfterASilenceHasLostNothing) {
    start();
    accept();
    http.advanceBy(5s);
    reply(OpProgressAndCompletion, {.body = {}, .status = 0, .error = "Timeout was reached"});
    EXPECT_EQ(job->progress().waitingFor, "the media server does not respond");
    complete();
    EXPECT_TRUE(succeeded());
}

// Cancelling.

TEST_F(JobRuns, CancellingBeforeAServerRespondsEndsAtOnce) {
    startWithoutServer();
    job->cancel();
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    EXPECT_EQ(link.waiters(), 0U);
    link.serverIsOn(8000);
    http.runReady();
    EXPECT_THAT(http.pending(), IsEmpty());
}

TEST_F(JobRuns, CancellingAJobThatWasNotStartedEndsAtOnce) {
    run->queued(7);
    EXPECT_EQ(job->progress().position, 7);
    job->cancel();
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    EXPECT_TRUE(run->hasEnded());
}

TEST_F(JobRuns, CancellingWhileItRunsWaitsForTheServersConfirmation) {
    start();
    accept();
    job->cancel();
    ASSERT_EQ(pendingType(), OpCancelOperation);
    EXPECT_EQ(pendingRecord()->uniqueID(), kID);
    EXPECT_FALSE(outcome);
    reply(OpCancelOperation, state(0.5, false, true));
    reply(OpProgressAndCompletion, state(0.5, false, true));
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
}

TEST_F(JobRuns, CancellingWhatHasJustBeenCompletedBringsTheResult) {
    start();
    accept();
    job->cancel();
    reply(OpCancelOperation, state(1, true));
    reply(OpProgressAndCompletion, state(1, true));
    reply(OpReturnResult, accepted());
    EXPECT_TRUE(succeeded());
}

TEST_F(JobRuns, CancellingWithAServerThatHangsTakesAtMostATenthOfASecond) {
    start();
    accept();
    job->cancel();
    http.advanceBy(100ms);
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    EXPECT_EQ(pendingType(), OpCancelOperation) << "it stays in the server's socket";
}

TEST_F(JobRuns, CancellingBeforeTheIdentifierIsKnownCancelsWhenItArrives) {
    start();
    job->cancel();
    ASSERT_EQ(pendingType(), OpEncodeVideo);
    http.advanceBy(100ms);
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    reply(OpEncodeVideo, accepted());
    ASSERT_EQ(pendingType(), OpCancelOperation);
    EXPECT_EQ(pendingRecord()->uniqueID(), kID);
    reply(OpCancelOperation, state(0, false, true));
    EXPECT_THAT(http.pending(), IsEmpty());
    EXPECT_EQ(ends, 1);
}

TEST_F(JobRuns, CancellingWhatTheServerRefusesEndsAtOnce) {
    start();
    job->cancel();
    reply(OpEncodeVideo, erroneous(OperationErrorCode::CannotAcceptWork));
    ASSERT_TRUE(failure());
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
    EXPECT_THAT(http.pending(), IsEmpty());
}

TEST_F(JobRuns, CancellingWhileTheFirstReplyIsOnItsWayIsConfirmedIfThatComesInTime) {
    start();
    job->cancel();
    reply(OpEncodeVideo, accepted());
    reply(OpCancelOperation, state(0, false, true));
    reply(OpProgressAndCompletion, state(0, false, true));
    EXPECT_EQ(failure()->kind(), Kind::Cancelled);
}

TEST_F(JobRuns, CancellingWhatIsBeingFetchedBringsTheResult) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(1, true));
    job->cancel();
    reply(OpReturnResult, accepted());
    EXPECT_TRUE(succeeded());
}

TEST_F(JobRuns, CancellingBetweenTwoQuestionsCancelsOnTheServer) {
    start();
    accept();
    reply(OpProgressAndCompletion, state(0.5));
    EXPECT_THAT(http.pending(), IsEmpty());
    job->cancel();
    EXPECT_EQ(pendingType(), OpCancelOperation);
    http.advanceBy(1s);
    EXPECT_THAT(http.pending(), SizeIs(1)) << "the state is not asked for any more";
}

TEST_F(JobRuns, CancellingTwiceIsCancellingOnce) {
    start();
    accept();
    job->cancel();
    job->cancel();
    EXPECT_THAT(http.pending(), SizeIs(1));
}

TEST_F(JobRuns, ARunThatHasEndedIsDestroyed) {
    start();
    accept();
    complete();
    reply(OpRemoveReturnResult, state(0));
    const std::weak_ptr<JobRun> weak = run;
    run.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(http.timers(), 0U);
}

}  // namespace
}  // namespace krv
