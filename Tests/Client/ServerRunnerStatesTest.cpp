// Every transition of the server runner's state machine, step by step.
#include "RunnerFixture.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Types = std::vector<std::int32_t>;

const std::string kNoProcess =
    kRunnerLines.info("isQTProcessServerRunning", "Can't find process. Server isn't running");

/// Returns a line of the state machine.
std::string inStep(std::string_view text) {
    return kRunnerLines.info("stateMachine", text);
}

class States : public RunnerFixture {
protected:
    States() {
        makeBundle("main");
        makeRunner();
    }
    std::vector<std::string> step() {
        LogRecorder log;
        runner->stateMachine();
        return log.whole();
    }
    void waitingSince(Clock::Duration ago) {
        runner->setState(ServerRunner::WaitForServer);
        runner->setServerCheckStartTime(clock.now() - ago);
    }
    void registered() {
        runner->setState(ServerRunner::Registered);
        serverIsKnown();
    }
};

// 0, start

TEST_F(States, ANewRunnerStartsInStateStart) {
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    EXPECT_FALSE(runner->running());
    EXPECT_EQ(runner->timeToPresumeAServerDead(), 10);
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_EQ(runner->lastSentAmIRegistered(), std::nullopt);
    EXPECT_EQ(runner->qtProcessorTask(), nullptr);
}

TEST_F(States, StartContinuesWithTheLookInTheSameStep) {
    EXPECT_THAT(step(), ElementsAre(kNoProcess, kNoProcess, inStep("Starting a new server ..."),
                                    kRunnerLines.info("kickOffQTProcessor", "I will start " + bundlePath("main"))));
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    EXPECT_EQ(launches.size(), 1U);
}

TEST_F(States, StartForgetsAnEarlierWait) {
    runner->setServerCheckStartTime(clock.now() - 1h);
    (void)step();
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
}

// 1, look for server

TEST_F(States, ARunningServerIsWaitedForAndNotLaunched) {
    serverRuns();
    EXPECT_THAT(step(), ElementsAre(inStep("Looks like a server is already running.")));
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
    EXPECT_TRUE(launches.empty());
}

TEST_F(States, AKnownPortCountsAsRunningWithoutAnyProcess) {
    serverIsKnown();
    EXPECT_THAT(step(), ElementsAre(inStep("Looks like a server is already running.")));
    EXPECT_TRUE(runner->isQTProcessServerRunning());
    EXPECT_TRUE(launches.empty());
}

TEST_F(States, ALaunchByAnotherThreadIsNotRepeated) {
    runner->setState(ServerRunner::LookForServer);
    runner->setServerCheckStartTime(clock.now());
    EXPECT_THAT(step(), ElementsAre(kNoProcess, inStep("No server running - but we have just begun one. Will ignore "
                                                       "that no server is running, for now")));
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    EXPECT_TRUE(launches.empty());
}

TEST_F(States, ALookEndsItsStep) {
    serverRuns();
    serverIsKnown();
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    EXPECT_TRUE(sent().empty());
}

TEST_F(States, WithoutABundleTheLookIsRepeatedInEveryStep) {
    std::filesystem::remove_all(folder.path() / "main");
    EXPECT_THROW(runner->stateMachine(), Exception);
    EXPECT_EQ(runner->state(), ServerRunner::LookForServer);
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_THROW(runner->stateMachine(), Exception);
    makeBundle("main");
    EXPECT_NO_THROW(runner->stateMachine());
    EXPECT_EQ(launches.size(), 1U);
}

TEST_F(States, ARefusedLaunchIsRetriedAfterTheWait) {
    launchFailure.emplace("NSInvalidArgumentException", "refused");
    EXPECT_THROW(runner->stateMachine(), Exception);
    EXPECT_EQ(runner->state(), ServerRunner::LookForServer);
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    clock.advanceBy(10001ms);
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    launchFailure.reset();
    (void)step();
    EXPECT_EQ(launches.size(), 2U);
}

// 2, wait for server

TEST_F(States, WaitsForAServerToAppear) {
    waitingSince(1500ms);
    EXPECT_THAT(step(), ElementsAre(kNoProcess, inStep("Waiting for a server to appear (1.50s)")));
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
}

TEST_F(States, AWaitWithoutAStartTimeStartsNow) {
    waitingSince(9s);
    runner->setServerCheckStartTime(std::nullopt);
    EXPECT_THAT(step(), ElementsAre(kNoProcess, inStep("Waiting for a server to appear (0.00s)")));
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
}

TEST_F(States, WaitsForExactlyTenSeconds) {
    waitingSince(10s);
    EXPECT_THAT(step(), ElementsAre(kNoProcess, inStep("Waiting for a server to appear (10.00s)")));
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
}

TEST_F(States, GivesUpAfterTenSeconds) {
    waitingSince(10001ms);
    EXPECT_THAT(step(), ElementsAre(kNoProcess, inStep("Waited long enough (10s) for server to appear as alive. "
                                                       "Giving up, starting again")));
    EXPECT_EQ(runner->state(), ServerRunner::Start);
}

TEST_F(States, GivesUpBeforeItChecksWhetherTheServerIsReady) {
    waitingSince(10001ms);
    serverIsKnown();
    EXPECT_THAT(step(), ElementsAre(testing::StartsWith(inStep("Waited long enough"))));
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    EXPECT_TRUE(sent().empty());
}

TEST_F(States, ATimeInTheFutureCountsAsElapsedToo) {
    waitingSince(-11s);
    EXPECT_THAT(step(), testing::Contains(testing::StartsWith(inStep("Waited long enough"))));
}

TEST_F(States, TheWaitCanBeChanged) {
    runner->setTimeToPresumeAServerDead(2);
    waitingSince(2500ms);
    EXPECT_THAT(step(), testing::Contains(testing::StartsWith(inStep("Waited long enough (2s)"))));
}

TEST_F(States, LogsThatTheLaunchedServerHasExited) {
    (void)step();
    tasks.at(0)->running = false;
    clock.advanceBy(10001ms);
    EXPECT_THAT(step(), testing::Contains(inStep("The server that was launched, process 100, has ended")));
}

TEST_F(States, AReadyServerIsRegisteredWithInTheSameStep) {
    waitingSince(2s);
    serverIsKnown(8003);
    serverAnswers(true);
    EXPECT_THAT(step(), ElementsAre(inStep("Server responding to requests on port 8003. That's a good sign!"),
                                    inStep("Registration complete. Good to go.")));
    EXPECT_EQ(runner->state(), ServerRunner::Registered);
    EXPECT_EQ(sent(), Types{OpRegisterWithServer});
}

// 3, register

TEST_F(States, ARegistrationEndsTheAttemptAndPostsTheNotification) {
    runner->setState(ServerRunner::Register);
    runner->setServerCheckStartTime(clock.now());
    serverIsKnown();
    serverAnswers(true);
    EXPECT_THAT(step(), ElementsAre(inStep("Registration complete. Good to go.")));
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_EQ(notifications, 0);
    mainLoop.runReady();
    EXPECT_EQ(notifications, 1);
    EXPECT_EQ(kKRVNewKRVQuicktimeProcessorStarted, "kKRVNewKRVQuicktimeProcessorStarted");
}

TEST_F(States, AFailedRegistrationStartsFromScratchAndMakesDiscoverySearchAgain) {
    runner->setState(ServerRunner::Register);
    serverIsKnown();
    transport->unreachable("no answer");
    constexpr LinesOf discoveryLines("Source/Client/HTTPServerDiscovery");
    EXPECT_THAT(step(),
                ElementsAre(discoveryLines.info("serverIsntThere", "App is saying server isn't there - and forcing "
                                                                   "service refresh"),
                            discoveryLines.info("serverIsntThere", "Current browser is: " + browser->description()),
                            inStep("Failed to register with server: no answer. Starting from scratch.")));
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    mainLoop.runReady();
    EXPECT_EQ(notifications, 1);
}

TEST_F(States, TheAttemptIsOverBeforeTheRegistrationIsSent) {
    runner->setState(ServerRunner::Register);
    runner->setServerCheckStartTime(clock.now());
    serverIsKnown();
    std::size_t posts = 0;
    bool over = false;
    transport->then([&](const auto&) {
        over = !runner->serverCheckStartTime();
        posts = mainLoop.pendingCount();
        return std::make_shared<const Data>(KRVOperationBase().convertToData());
    });
    (void)step();
    EXPECT_TRUE(over);
    EXPECT_EQ(posts, 1U);
    EXPECT_EQ(runner->state(), ServerRunner::Registered);
}

TEST_F(States, ALaunchedServerThatStillRunsHasNotExited) {
    (void)step();
    clock.advanceBy(10001ms);
    EXPECT_THAT(step(), ElementsAre(kNoProcess, testing::StartsWith(inStep("Waited long enough"))));
}

TEST_F(States, ARegistrationWithoutAReplyFails) {
    runner->setState(ServerRunner::Register);
    serverIsKnown();
    transport->replyNothing();
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Start);
}

TEST_F(States, OtherExceptionsPropagate) {
    runner->setState(ServerRunner::Register);
    serverIsKnown();
    transport->then([](const auto&) -> std::shared_ptr<const Data> { throw std::bad_alloc(); });
    EXPECT_THROW(runner->stateMachine(), std::bad_alloc);
    EXPECT_EQ(runner->state(), ServerRunner::Register);
}

// 5, registered

TEST_F(States, AsksTheServerAtMostEveryThreeSeconds) {
    registered();
    for (int i = 0; i < 10; ++i) {
        serverAnswers(true);
    }
    for (int i = 0; i < 9; ++i) {
        EXPECT_THAT(step(), ElementsAre());
        EXPECT_EQ(runner->state(), ServerRunner::Registered);
        clock.advanceBy(1s);
    }
    EXPECT_EQ(sent(), Types(3, OpAmIRegistered));
}

TEST_F(States, RegistersAgainInTheNextStepWhenTheServerHasForgottenUs) {
    registered();
    serverAnswers(false);
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Register);
    EXPECT_EQ(sent(), Types{OpAmIRegistered});
    serverAnswers(true);
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Registered);
}

TEST_F(States, AReregistrationIsConfirmedAfterThreeSeconds) {
    registered();
    serverAnswers(false);
    (void)step();
    clock.advanceBy(1s);
    serverAnswers(true);
    (void)step();
    // The old reply is used until the next request.
    clock.advanceBy(1s);
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Register);
    clock.advanceBy(1s);
    serverAnswers(true);
    (void)step();
    serverAnswers(true);
    clock.advanceBy(1s);
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Registered);
}

TEST_F(States, AServerThatDoesNotRespondDoesNotKnowUs) {
    registered();
    transport->unreachable();
    (void)step();
    EXPECT_EQ(runner->state(), ServerRunner::Register);
}

TEST_F(States, StartsOverWhenThePortIsLostEvenIfTheProcessRuns) {
    registered();
    serverRuns();
    serverIsKnown(-1);
    EXPECT_THAT(step(), ElementsAre());
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    EXPECT_TRUE(sent().empty());
}

TEST_F(States, StartsOverWhenPortAndProcessAreLost) {
    registered();
    serverIsKnown(0);
    EXPECT_THAT(step(), ElementsAre(kNoProcess));
    EXPECT_EQ(runner->state(), ServerRunner::Start);
}

// Other values

TEST_F(States, OtherStatesDoNothing) {
    for (const std::int32_t state : {4, -1, 6, 1000}) {
        runner->setState(state);
        EXPECT_THAT(step(), ElementsAre(kNoProcess));
        EXPECT_EQ(runner->state(), state);
    }
    EXPECT_TRUE(launches.empty());
    EXPECT_TRUE(sent().empty());
}

// Queries

TEST_F(States, IsReadyOnlyWithAPortAboveZero) {
    for (const auto& [port, ready] : {std::pair(-1L, false), {0L, false}, {1L, true}, {65535L, true}}) {
        serverIsKnown(port);
        EXPECT_EQ(runner->isQTProcessReady(), ready) << port;
    }
}

TEST_F(States, DoesNotAskAServerThatIsNotReady) {
    EXPECT_FALSE(runner->doesServerKnowUs());
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(runner->lastSentAmIRegistered(), std::nullopt);
}

TEST_F(States, CachesTheReplyForLessThanThreeSeconds) {
    serverIsKnown();
    serverAnswers(true);
    EXPECT_TRUE(runner->doesServerKnowUs());
    EXPECT_EQ(runner->lastSentAmIRegistered(), clock.now());
    clock.advanceBy(2999ms);
    EXPECT_TRUE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 1U);
    clock.advanceBy(1ms);
    serverAnswers(false);
    EXPECT_FALSE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 2U);
}

TEST_F(States, AQuestionCountsFromWhenItIsSent) {
    serverIsKnown();
    const auto sentAt = clock.now();
    transport->then([&](const auto&) {
        clock.advanceBy(2s);
        return nullptr;
    });
    EXPECT_FALSE(runner->doesServerKnowUs());
    EXPECT_EQ(runner->lastSentAmIRegistered(), sentAt);
    clock.advanceBy(1s);
    serverAnswers(true);
    EXPECT_TRUE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 2U);
}

TEST_F(States, AQuestionInTheFutureCountsByItsDistance) {
    serverIsKnown();
    serverAnswers(true);
    EXPECT_TRUE(runner->doesServerKnowUs());
    runner->setLastSentAmIRegistered(clock.now() + 2999ms);
    EXPECT_TRUE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 1U);
    runner->setLastSentAmIRegistered(clock.now() + 3s);
    serverAnswers(false);
    EXPECT_FALSE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 2U);
}

TEST_F(States, AServerThatIsNoLongerReadyKeepsItsLastAnswer) {
    serverIsKnown();
    serverAnswers(true);
    EXPECT_TRUE(runner->doesServerKnowUs());
    serverIsKnown(-1);
    EXPECT_FALSE(runner->doesServerKnowUs());
    serverIsKnown();
    EXPECT_TRUE(runner->doesServerKnowUs());
    EXPECT_EQ(sent().size(), 1U);
}

TEST_F(States, ACleanedUpRunnerIsNotKnown) {
    serverIsKnown();
    runner->cleanUp();
    EXPECT_FALSE(runner->doesServerKnowUs());
    EXPECT_TRUE(sent().empty());
}

// Long runs

TEST_F(States, AServerThatNeverRespondsIsLaunchedRepeatedly) {
    runner->startMonitorTimer();
    loop.advanceBy(30s);
    EXPECT_EQ(launches.size(), 3U);  // at 1 s, then after every ten seconds of waiting and one step to start over
}

TEST_F(States, AProcessThatNeverRespondsIsNeverLaunchedAgain) {
    serverRuns();
    runner->startMonitorTimer();
    loop.advanceBy(60s);
    EXPECT_TRUE(launches.empty());
}

TEST_F(States, AnHourOfRegistrationAsksEveryThreeSeconds) {
    registered();
    transport->then([](const auto&) { return nullptr; });
    // Each reply scripts the next one.
    std::function<std::shared_ptr<const Data>(const KRVOperationBase::Ref&)> answer = [&](const auto&) {
        transport->then(answer);
        KRVOperationBase record;
        record.setIsClientRegistered(true);
        return std::make_shared<const Data>(record.convertToData());
    };
    runner->setState(ServerRunner::Registered);
    transport = std::make_shared<ScriptedTransport>();
    client->setTransport(transport);
    transport->then(answer);
    runner->startMonitorTimer();
    loop.advanceBy(1h);
    EXPECT_EQ(sent().size(), 1200U);
    EXPECT_EQ(runner->state(), ServerRunner::Registered);
    EXPECT_EQ(loop.pendingCount(), 1U);
}

}  // namespace
}  // namespace krv
