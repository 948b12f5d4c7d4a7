#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/JobState.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "WaitUntil.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

JobCore::Outcome number(int n) {
    return {.value = std::make_shared<const int>(n)};
}

JobCore::Outcome failure() {
    return {.value = nullptr, .failure = Failure(Failure::Kind::NotMedia, {.message = "It is not a movie."})};
}

int numberIn(const JobCore::Outcome& outcome) {
    return outcome.value ? *std::static_pointer_cast<const int>(outcome.value) : -1;
}

Progress at(double fraction) {
    Progress progress;
    progress.state = Progress::State::Running;
    progress.fraction = fraction;
    return progress;
}

class JobStates : public testing::Test {
protected:
    std::shared_ptr<JobState> make(ProgressCallback onProgress = {}, JobControl control = {}) {
        return std::make_shared<JobState>(std::move(onProgress), control);
    }

    FakeClock clock;
    FakeRunLoop loop{clock};
    const RunLoop::Replacement replacement{loop};
    std::vector<int> ended;
};

TEST_F(JobStates, TheEndIsDeliveredOnTheLoopOnce) {
    const auto job = make();
    job->onEnd(nullptr, [this](const auto& outcome) { ended.push_back(numberIn(outcome)); });
    job->end(number(1));
    job->end(number(2));
    EXPECT_THAT(ended, IsEmpty());
    loop.runReady();
    EXPECT_THAT(ended, ElementsAre(1));
    EXPECT_TRUE(job->hasEnded());
}

TEST_F(JobStates, AnEndThatHasPassedIsDeliveredAfterTheCallThatAsksForIt) {
    const auto job = make();
    job->end(number(1));
    job->onEnd(nullptr, [this](const auto& outcome) { ended.push_back(numberIn(outcome)); });
    EXPECT_THAT(ended, IsEmpty());
    loop.runReady();
    EXPECT_THAT(ended, ElementsAre(1));
}

TEST_F(JobStates, CallbacksComeOnTheLoopOfTheOptions) {
    FakeRunLoop other(clock);
    const auto job = make([this](const Progress&) { ended.push_back(0); }, {.loop = &other});
    job->onEnd(nullptr, [this](const auto& outcome) { ended.push_back(numberIn(outcome)); });
    job->report(at(0.5));
    job->end(number(1));
    loop.runReady();
    EXPECT_THAT(ended, IsEmpty());
    other.runReady();
    EXPECT_THAT(ended, ElementsAre(0, 1));
}

TEST_F(JobStates, OnlyTheLatestProgressIsDelivered) {
    std::vector<double> seen;
    const auto job = make([&seen](const Progress& progress) { seen.push_back(progress.fraction); });
    job->report(at(0.1));
    job->report(at(0.2));
    job->report(at(0.3));
    EXPECT_EQ(loop.pendingCount(), 1U);
    loop.runReady();
    job->report(at(0.4));
    loop.runReady();
    EXPECT_THAT(seen, ElementsAre(0.3, 0.4));
    EXPECT_EQ(job->progress().fraction, 0.4);
}

TEST_F(JobStates, NothingIsDeliveredAfterTheHandleWasDestroyed) {
    const auto job = make([this](const Progress&) { ended.push_back(0); });
    job->onEnd(nullptr, [this](const auto& outcome) { ended.push_back(numberIn(outcome)); });
    job->report(at(0.5));
    job->end(number(1));
    job->abandon();
    loop.runReady();
    EXPECT_THAT(ended, IsEmpty());
}

TEST_F(JobStates, NoProgressIsDeliveredAfterTheEnd) {
    const auto job = make([this](const Progress&) { ended.push_back(0); });
    job->end(number(1));
    job->report(at(0.5));
    EXPECT_EQ(loop.pendingCount(), 0U);
}

TEST_F(JobStates, AJobThatHasEndedIsNotCancelled) {
    int cancelled = 0;
    const auto job = make();
    job->end(number(1));
    job->onCancel([&cancelled] { ++cancelled; });
    job->cancel();
    EXPECT_EQ(cancelled, 0);
}

TEST_F(JobStates, AThreadThatWaitsIsWoken) {
    const auto job = make();
    std::promise<pid_t> id;
    auto waited = std::async(std::launch::async, [&] {
        id.set_value(::gettid());
        return numberIn(job->wait());
    });
    const std::string status = "/proc/self/task/" + std::to_string(id.get_future().get()) + "/stat";
    test::waitUntil([&status] {
        std::string text;
        std::getline(std::ifstream(status), text);
        return text.find(") S") != std::string::npos;  // it sleeps
    });
    job->end(number(1));
    EXPECT_EQ(waited.get(), 1);
}

TEST_F(JobStates, DestroyingTheHandleCancels) {
    int cancelled = 0;
    const auto job = make();
    job->onCancel([&cancelled] { ++cancelled; });
    job->abandon();
    EXPECT_EQ(cancelled, 1);
}

TEST_F(JobStates, ACancelBeforeTheEngineKnowsTheJobIsNotLost) {
    int cancelled = 0;
    const auto job = make();
    job->cancel();
    job->onCancel([&cancelled] { ++cancelled; });
    EXPECT_EQ(cancelled, 1);
}

TEST_F(JobStates, AnEndedJobIsNotCancelled) {
    int cancelled = 0;
    const auto job = make();
    job->onCancel([&cancelled] { ++cancelled; });
    job->end(number(1));
    job->cancel();
    EXPECT_EQ(cancelled, 0);
}

TEST_F(JobStates, AStopRequestCancels) {
    std::stop_source source;
    int cancelled = 0;
    const auto job = make({}, {.stop = source.get_token()});
    job->onCancel([&cancelled] { ++cancelled; });
    source.request_stop();
    EXPECT_EQ(cancelled, 1);
}

TEST_F(JobStates, AStopRequestBeforeTheJobBeganCancels) {
    std::stop_source source;
    source.request_stop();
    int cancelled = 0;
    const auto job = make({}, {.stop = source.get_token()});
    job->onCancel([&cancelled] { ++cancelled; });
    EXPECT_EQ(cancelled, 1);
}

TEST_F(JobStates, AnObserverThatThrowsCancelsAndIsLogged) {
    const LogRecorder log;
    int cancelled = 0;
    const auto job = make([](const Progress&) { throw std::runtime_error("no more"); });
    job->onCancel([&cancelled] { ++cancelled; });
    job->report(at(0.5));
    loop.runReady();
    EXPECT_EQ(cancelled, 1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines().front().text, "A callback of a job has thrown: no more");
}

TEST_F(JobStates, ACallbackThatThrowsDoesNotReachTheLoopNorTheNextCallback) {
    const LogRecorder log;
    const auto job = make();
    job->onEnd(nullptr, [](const auto&) { throw 7; });
    job->onEnd(nullptr, [this](const auto& outcome) { ended.push_back(numberIn(outcome)); });
    job->end(number(1));
    loop.runReady();
    EXPECT_THAT(ended, ElementsAre(1));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(JobStates, ACallbackMayDestroyItsOwnHandle) {
    auto job = make();
    job->onEnd(nullptr, [&](const auto&) {
        job->abandon();
        job.reset();
        ended.push_back(1);
    });
    job->end(number(1));
    loop.runReady();
    EXPECT_THAT(ended, ElementsAre(1));
}

TEST_F(JobStates, DestroyingTheHandleWaitsForACallbackOnAnotherThread) {
    const auto job = make();
    std::promise<void> inside;
    std::promise<void> leave;
    std::atomic<bool> left = false;
    job->onEnd(nullptr, [&](const auto&) {
        inside.set_value();
        leave.get_future().wait();
        left = true;
    });
    job->end(number(1));
    std::thread runner([this] { loop.runReady(); });
    inside.get_future().wait();
    std::promise<void> abandoning;
    std::thread owner([&] {
        abandoning.set_value();
        job->abandon();
        EXPECT_TRUE(left);
    });
    abandoning.get_future().wait();
    leave.set_value();
    owner.join();
    runner.join();
}

TEST_F(JobStates, WaitingOnAnotherThreadNeedsNoLoop) {
    const auto job = make();
    auto waited = std::async(std::launch::async, [&] { return numberIn(job->wait()); });
    job->end(number(5));
    EXPECT_EQ(waited.get(), 5);
}

TEST_F(JobStates, WhatWaitsForTheEndDirectlyIsToldAlsoWithoutAHandle) {
    const auto job = make();
    job->whenEnded([this](const auto& outcome) { ended.push_back(outcome.failure ? -2 : numberIn(outcome)); });
    job->abandon();
    job->end(failure());
    EXPECT_THAT(ended, ElementsAre(-2));
}

/// With the real main loop, which this thread may run.
class JobOnMainThread : public testing::Test {
protected:
    const std::shared_ptr<JobState> job = std::make_shared<JobState>(ProgressCallback(), JobControl());
};

TEST_F(JobOnMainThread, WaitingRunsTheMainLoop) {
    std::vector<int> order;
    job->onEnd(nullptr, [&order](const auto&) { order.push_back(2); });
    RunLoop::main().perform([&] {
        order.push_back(1);
        job->end(number(3));
    });
    EXPECT_EQ(numberIn(job->wait()), 3);
    EXPECT_EQ(order.front(), 1);
    RunLoop::main().runUntil(Clock::steady().now());
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST_F(JobOnMainThread, WaitingWithinACallbackOfTheMainLoopIsRefusedAndTheJobGoesOn) {
    std::optional<Failure> refused;
    RunLoop::main().perform([&] {
        refused = job->wait().failure;
        RunLoop::main().stop();
    });
    RunLoop::main().run();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->kind(), Failure::Kind::BadArgument);
    EXPECT_FALSE(job->hasEnded());
    job->end(number(1));
    EXPECT_EQ(numberIn(job->wait()), 1);
}

TEST_F(JobOnMainThread, AnEndedJobMayBeWaitedForAnywhere) {
    job->end(number(4));
    RunLoop::main().perform([&] {
        EXPECT_EQ(numberIn(job->wait()), 4);
        RunLoop::main().stop();
    });
    RunLoop::main().run();
}

TEST_F(JobOnMainThread, AStopOfTheLoopWhileItIsWaitedOnReachesTheNextRun) {
    RunLoop::main().perform([&] {
        RunLoop::main().stop();
        RunLoop::main().performAfterDelay(5ms, std::make_shared<int>(0), Selector("end"), [&] { job->end(number(1)); });
    });
    EXPECT_EQ(numberIn(job->wait()), 1);
    RunLoop::main().run();  // returns, because a stop was requested
}

}  // namespace
}  // namespace krv
