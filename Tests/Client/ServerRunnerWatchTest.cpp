// The server runner goes on watching: whatever a step or an observer throws, on its own thread and on the main loop.
#include <atomic>
#include <new>
#include <stdexcept>

#include "RunnerFixture.h"
#include "WaitUntil.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::SizeIs;

/// A runner whose timer a wake has moved to the main loop, which the application runs.
class Watch : public RunnerFixture {
protected:
    void wakeOnMainLoop() {
        makeRunner();
        power.post({std::string(kWorkspaceWillSleepNotification), {}, nullptr});
        const RunLoop::Replacement onMain(mainLoop);
        power.post({std::string(kWorkspaceDidWakeNotification), {}, nullptr});
    }
    /// Runs the main loop as its owner does: what leaves it reaches the application.
    void turnMainLoop(Clock::Duration duration) {
        const RunLoop::Replacement onMain(mainLoop);
        EXPECT_NO_THROW(mainLoop.advanceBy(duration));
    }
};

TEST_F(Watch, AMissingBundleAfterAWakeIsLoggedEverySecondAndNothingElse) {
    wakeOnMainLoop();
    const LogRecorder log;
    turnMainLoop(3500ms);
    const auto texts = log.texts();
    EXPECT_EQ(
        std::count(texts.begin(), texts.end(),
                   "Error during ServerRunner thread loop: Cannot find the executable (null). Can't start server"),
        3);
    for (const LogRecorder::Line& line : log.lines()) {
        EXPECT_EQ(line.flag, kLogFlagInfo);
    }
}

TEST_F(Watch, ALaunchThatTheSystemRefusesAfterAWakeIsTriedAgain) {
    makeBundle("main");
    launchFailure = Exception("NSTaskLaunchException", "no process");
    wakeOnMainLoop();
    const LogRecorder log;
    turnMainLoop(30s);
    EXPECT_THAT(log.texts(), Contains("Error during ServerRunner thread loop: no process"));
    // Once at the start, and again each time that the wait for a server is over.
    EXPECT_THAT(launches, SizeIs(testing::AllOf(testing::Ge(2U), testing::Le(3U))));
    launchFailure.reset();
    turnMainLoop(15s);
    EXPECT_THAT(tasks, SizeIs(1));
}

TEST_F(Watch, AForeignExceptionAfterAWakeIsLoggedAndTheStepsContinue) {
    int steps = 0;
    environment.discovery = [&]() -> std::shared_ptr<HTTPServerDiscovery> {
        ++steps;
        if (steps % 2 == 0) {
            throw std::bad_alloc();
        }
        throw 3;
    };
    wakeOnMainLoop();
    const LogRecorder log;
    turnMainLoop(4500ms);
    EXPECT_EQ(steps, 4);
    const auto unknown = kRunnerLines.error(
        "startTimerOnThread", "A step of the server runner has failed with an exception of an unknown kind");
    const auto noMemory =
        kRunnerLines.error("startTimerOnThread", "A step of the server runner has failed: std::bad_alloc");
    EXPECT_THAT(log.whole(), testing::ElementsAre(unknown, noMemory, unknown, noMemory));
}

TEST_F(Watch, AForeignExceptionPropagatesOutOfATickOnAnotherLoop) {
    environment.discovery = []() -> std::shared_ptr<HTTPServerDiscovery> { throw std::bad_alloc(); };
    makeRunner();
    EXPECT_THROW(runner->krvNSTimerFired(), std::bad_alloc);
}

TEST_F(Watch, AForeignExceptionBeginsItsThreadAgain) {
    std::atomic<int> steps = 0;
    environment.startThread = ServerRunner::Environment{}.startThread;
    environment.now = [] { return Clock::steady().now(); };
    environment.discovery = [&]() -> std::shared_ptr<HTTPServerDiscovery> {
        ++steps;
        throw std::runtime_error("an application's own");
    };
    makeRunner();
    test::waitUntil([&] { return steps >= 3; });
    const std::weak_ptr<ServerRunner> weak = runner;
    runner->cleanUp();
    runner.reset();
    test::waitUntil([&] { return weak.expired(); });  // its thread has exited
}

TEST_F(Watch, AnObserversExceptionStopsNeitherTheTimerNorTheWatch) {
    makeBundle("main");
    (void)center.addObserver(kKRVNewKRVQuicktimeProcessorStarted, [](const Notification&) { throw 3; });
    (void)center.addObserver(kHTTPServerDiscoveryServiceChangeNotification,
                             [](const Notification&) { throw std::runtime_error("observer"); });
    makeRunner();
    (void)runner->addObserver([](const auto&, auto, auto) { throw std::runtime_error("observer"); });
    {
        const RunLoop::Replacement onMain(mainLoop);
        EXPECT_NO_THROW(power.post({std::string(kWorkspaceDidWakeNotification), {}, nullptr}));
    }
    EXPECT_TRUE(runner->isMonitoring());
    serverRuns();
    serverIsKnown();
    turnMainLoop(2500ms);  // registration fails, because nothing answers
    EXPECT_THAT(sent(), Contains(OpRegisterWithServer));
    EXPECT_NO_THROW(discovery->serverIsntThere());
    turnMainLoop(40s);
    EXPECT_TRUE(runner->isMonitoring());
}

TEST_F(Watch, CleanUpBesideAWakeLeavesNothingTicking) {
    wakeOnMainLoop();
    // As if the wake had passed its check just before the clean-up.
    runner->cleanUp();
    {
        const RunLoop::Replacement onMain(mainLoop);
        runner->startMonitorTimer();
    }
    const std::weak_ptr<ServerRunner> weak = runner;
    runner.reset();
    const LogRecorder log;
    turnMainLoop(1500ms);
    thread = nullptr;
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(mainLoop.pendingCount(), 0U);
    EXPECT_THAT(launches, SizeIs(0));
}

TEST_F(Watch, ALaunchedServerCountsAsRunningAfterItsRunnerIsCleanedUp) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    tasks.clear();
    runner->cleanUp();
    ASSERT_TRUE(ServerRunner::latestLaunch());
    EXPECT_TRUE(ServerRunner::latestLaunch()->running);
}

}  // namespace
}  // namespace krv
