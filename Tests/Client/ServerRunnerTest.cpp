// The server runner's thread, launches, sleep and wake, and clean-up.
#include <csignal>

#include "RunnerFixture.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Runner : public RunnerFixture {};

// The thread

TEST_F(Runner, LogsItsClient) {
    LogRecorder log;
    makeRunner();
    EXPECT_THAT(log.whole(),
                ElementsAre(kRunnerLines.info("initWithProcessMonitor:andClient:",
                                              "Process monitor initialized with client: " + client->description())));
}

TEST_F(Runner, StartsItsThreadAtOnceAndItsFirstStepAfterASecond) {
    makeRunner();
    serverRuns();
    loop.performAfterDelay(500ms, client, Selector("test"), [this] {
        EXPECT_TRUE(runner->running());
        EXPECT_TRUE(runner->isMonitoring());
        EXPECT_EQ(runner->state(), ServerRunner::Start);
    });
    loop.performAfterDelay(1500ms, client, Selector("test"), [this] {
        EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
        runner->setRunning(false);
    });
    thread();
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Runner, ItsThreadExitsWithinASecondOfCleanUp) {
    makeRunner();
    serverRuns();
    Clock::TimePoint cleaned;
    loop.performAfterDelay(4250ms, client, Selector("test"), [&] {
        runner->cleanUp();
        cleaned = clock.now();
    });
    thread();
    EXPECT_LE(clock.now() - cleaned, 1s);
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Runner, ItsThreadExitsEvenIfCleanUpComesFirst) {
    makeRunner();
    runner->cleanUp();
    const auto start = clock.now();
    thread();
    EXPECT_LE(clock.now() - start, 1s);
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Runner, LogsTheExceptionOfAStepAndContinues) {
    makeRunner();  // without any bundle
    loop.performAfterDelay(3500ms, client, Selector("test"), [this] { runner->setRunning(false); });
    LogRecorder log;
    thread();
    const auto lines = log.whole();
    // One per second. The thread finishes the second in which it was stopped.
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         kRunnerLines.info("startTimerOnThread",
                                           "Error during ServerRunner thread loop: Cannot find the executable (null). "
                                           "Can't start server")),
              4);
    EXPECT_THAT(lines, testing::Contains(kRunnerLines.info("kickOffQTProcessor",
                                                           "There is no KRVQuicktimeProcess.app in " +
                                                               mainBundle.path() + " or " + libraryBundle.path())));
}

TEST_F(Runner, AnExceptionOfAnotherCallOnItsLoopDoesNotEndItsThread) {
    makeRunner();
    serverRuns();
    loop.performAfterDelay(500ms, client, Selector("test"), [] { throw Exception("Test", "not a step"); });
    loop.performAfterDelay(2500ms, client, Selector("test"), [this] {
        EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
        runner->setRunning(false);
    });
    LogRecorder log;
    const auto begin = clock.now();
    thread();
    EXPECT_GE(clock.now() - begin, 2500ms);
    EXPECT_THAT(log.whole(), testing::Contains(kRunnerLines.info("startTimerOnThread",
                                                                 "Error during ServerRunner thread loop: not a step")));
}

TEST_F(Runner, OtherExceptionsPropagateOutOfItsThread) {
    makeRunner();
    loop.performAfterDelay(500ms, client, Selector("test"), [] { throw std::runtime_error("an application's own"); });
    EXPECT_THROW(thread(), std::runtime_error);
}

/// A run loop that takes no timers.
class RefusingLoop final : public RunLoop {
public:
    std::shared_ptr<Timer> scheduleTimer(Clock::Duration, Callback) override { throw Exception("Test", "not now"); }
    void performAfterDelay(Clock::Duration, std::shared_ptr<const void>, Selector, Callback) override {}
    void cancelPerform(const void*, Selector) override {}
    void perform(Callback) override {}
    void runUntil(Clock::TimePoint) override {}
    void run() override {}
    void stop() override {}
};

TEST_F(Runner, LogsThatItsTimerCannotBeStarted) {
    makeRunner();
    RefusingLoop refusing;
    const RunLoop::Replacement onRefusing(refusing);
    LogRecorder log;
    EXPECT_NO_THROW(thread());
    EXPECT_THAT(log.whole(), ElementsAre(kRunnerLines.info("startTimerOnThread", "Error starting timer: not now")));
}

TEST_F(Runner, StartAndStopAreThoseOfTheTimer) {
    makeRunner();
    runner->start();
    EXPECT_TRUE(runner->isMonitoring());
    runner->stop();
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Runner, KeepsClientAndMonitorUntilItIsCleanedUp) {
    makeRunner();
    const std::weak_ptr<KRVQuicktimeProcessClient> weakClient = client;
    const std::weak_ptr<KRVProcessMonitor> weakMonitor = monitor;
    client.reset();
    monitor.reset();
    EXPECT_FALSE(weakClient.expired());
    EXPECT_FALSE(weakMonitor.expired());
    runner->cleanUp();
    EXPECT_TRUE(weakClient.expired());
    EXPECT_TRUE(weakMonitor.expired());
    runner->cleanUp();
}

TEST_F(Runner, CleanUpClearsTimesAndTaskButNotTheState) {
    makeBundle("main");
    makeRunner();
    runner->stateMachine();
    runner->setLastSentAmIRegistered(clock.now());
    ASSERT_NE(runner->qtProcessorTask(), nullptr);
    runner->cleanUp();
    EXPECT_EQ(runner->qtProcessorTask(), nullptr);
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_EQ(runner->lastSentAmIRegistered(), std::nullopt);
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
    EXPECT_FALSE(runner->running());
}

TEST_F(Runner, IsDestroyedWithItsLastReferenceAndLogsIt) {
    makeRunner();
    thread = nullptr;
    const std::weak_ptr<ServerRunner> weak = runner;
    LogRecorder log;
    runner.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_THAT(log.whole(), ElementsAre(kRunnerLines.info("dealloc", "Server Runner deallocating")));
}

TEST_F(Runner, AStepAfterCleanUpUsesNoClient) {
    makeRunner();
    runner->cleanUp();
    serverIsKnown();
    runner->setState(ServerRunner::Register);
    EXPECT_NO_THROW(runner->stateMachine());
    EXPECT_THAT(sent(), IsEmpty());
}

// Sleep and wake

class Sleep : public Runner {
protected:
    Sleep() {
        makeRunner();
        serverRuns();
    }
    void post(std::string_view name) { power.post({std::string(name), Value(), nullptr}); }
};

TEST_F(Sleep, StopsTheTimerAndWakingStartsItAgain) {
    runner->startMonitorTimer();
    LogRecorder log;
    post(kWorkspaceWillSleepNotification);
    EXPECT_FALSE(runner->isMonitoring());
    loop.advanceBy(10s);
    EXPECT_EQ(runner->state(), ServerRunner::Start);
    post(kWorkspaceDidWakeNotification);
    EXPECT_TRUE(runner->isMonitoring());
    EXPECT_THAT(log.whole(), ElementsAre(kRunnerLines.info("goingToSleep:", "Nap time. Turning off monitoring"),
                                         kRunnerLines.info("wakingUp:", "Wakey wakey... begin monitoring again")));
    loop.advanceBy(1s);
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
}

TEST_F(Sleep, TheTimerRunsOnTheLoopOfTheThreadThatReportsTheWake) {
    runner->startMonitorTimer();
    post(kWorkspaceWillSleepNotification);
    EXPECT_EQ(loop.pendingCount(), 0U);
    {
        const RunLoop::Replacement onMain(mainLoop);
        post(kWorkspaceDidWakeNotification);
    }
    EXPECT_EQ(loop.pendingCount(), 0U);
    EXPECT_EQ(mainLoop.pendingCount(), 1U);
    mainLoop.advanceBy(3s);
    EXPECT_EQ(runner->state(), ServerRunner::WaitForServer);
}

TEST_F(Sleep, StepsContinueEverySecondAfterAWake) {
    serverIsKnown();
    runner->setState(ServerRunner::Registered);
    for (int i = 0; i < 10; ++i) {
        serverAnswers(true);
    }
    runner->startMonitorTimer();
    post(kWorkspaceWillSleepNotification);
    clock.advanceBy(24h);
    post(kWorkspaceDidWakeNotification);
    loop.advanceBy(9s);
    EXPECT_THAT(sent(), SizeIs(3));
}

TEST_F(Sleep, AWakeWithoutASleepLeavesOneTimer) {
    runner->startMonitorTimer();
    post(kWorkspaceDidWakeNotification);
    post(kWorkspaceDidWakeNotification);
    EXPECT_EQ(loop.pendingCount(), 1U);
}

TEST_F(Sleep, TwiceIsHarmless) {
    runner->startMonitorTimer();
    post(kWorkspaceWillSleepNotification);
    post(kWorkspaceWillSleepNotification);
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Sleep, IsIgnoredByACleanedUpRunner) {
    runner->cleanUp();
    LogRecorder log;
    post(kWorkspaceWillSleepNotification);
    post(kWorkspaceDidWakeNotification);
    runner->wakingUp();
    EXPECT_THAT(log.whole(), IsEmpty());
    EXPECT_FALSE(runner->isMonitoring());
}

TEST_F(Sleep, IsIgnoredAfterTheRunnerIsDestroyed) {
    thread = nullptr;
    runner.reset();
    EXPECT_NO_THROW(post(kWorkspaceDidWakeNotification));
}

// The launch

class Launch : public Runner {};

TEST_F(Launch, StartsTheExecutableOfTheBundleWithTheApplicationsIdentifier) {
    makeBundle("main");
    folder.write("main/Contents/Info.plist", "<plist><dict><key>CFBundleIdentifier</key>"
                                             "<string>org.example.editor</string></dict></plist>");
    makeRunner();
    LogRecorder log;
    runner->kickOffQTProcessor();
    ASSERT_THAT(launches, SizeIs(1));
    EXPECT_EQ(launches[0].executable, bundlePath("main") + "/Contents/MacOS/KRVQuicktimeProcess");
    EXPECT_THAT(launches[0].arguments, ElementsAre("-KRVLoggingDomain", "org.example.editor"));
    EXPECT_THAT(log.whole(),
                ElementsAre(kRunnerLines.info("kickOffQTProcessor", "I will start " + bundlePath("main"))));
    EXPECT_EQ(runner->qtProcessorTask(), tasks.at(0));
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
}

TEST_F(Launch, PassesOnlyTheFirstArgumentForAnApplicationWithoutIdentifier) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    EXPECT_THAT(launches.at(0).arguments, ElementsAre("-KRVLoggingDomain"));
}

TEST_F(Launch, KeepsTheServersStandardErrorInAFile) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    EXPECT_EQ(launches.at(0).standardErrorFile, folder.path() / "KRVQuicktimeProcess/standard-error.log");
    EXPECT_TRUE(std::filesystem::is_directory(folder.path() / "KRVQuicktimeProcess"));
}

TEST_F(Launch, LimitsTheSizeOfThatFile) {
    makeBundle("main");
    const std::string file = folder.write("KRVQuicktimeProcess/standard-error.log", std::string(300000, 'x'));
    makeRunner();
    runner->kickOffQTProcessor();
    EXPECT_EQ(std::filesystem::file_size(file), 0U);
}

TEST_F(Launch, IsNotRepeatedWhileOneIsInProgress) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    clock.advanceBy(1500ms);
    LogRecorder log;
    runner->kickOffQTProcessor();
    EXPECT_THAT(log.whole(),
                ElementsAre(kRunnerLines.info("kickOffQTProcessor",
                                              "Not starting server - one has already been started -1.50s ago")));
    EXPECT_THAT(launches, SizeIs(1));
}

TEST_F(Launch, AtOnceDoesNotWaitForAnEarlierOneThatHasExited) {
    makeBundle("main");
    makeRunner();
    EXPECT_TRUE(runner->launchIfMissing());
    EXPECT_TRUE(runner->launchIfMissing());
    EXPECT_THAT(launches, testing::SizeIs(2));
}

TEST_F(Launch, AtOnceLaunchesNothingBesideARunningServer) {
    makeBundle("main");
    makeRunner();
    serverRuns();
    EXPECT_FALSE(runner->launchIfMissing());
    EXPECT_THAT(launches, testing::IsEmpty());
}

TEST_F(Launch, WithoutABundleThrowsBadBuild) {
    makeRunner();
    try {
        runner->kickOffQTProcessor();
        FAIL() << "nothing was raised";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), "BadBuild");
        EXPECT_EQ(exception.reason(), "Cannot find the executable (null). Can't start server");
    }
    EXPECT_THAT(launches, IsEmpty());
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_THAT(ServerRunner::latestLaunch()->failure, testing::HasSubstr("Cannot find the executable"));
    EXPECT_EQ(ServerRunner::latestLaunch()->bundle, "");
}

TEST_F(Launch, ThatIsRefusedThrowsTheSystemsReason) {
    makeBundle("main");
    launchFailure.emplace("NSInvalidArgumentException", "it cannot be launched: Exec format error");
    makeRunner();
    EXPECT_THROW(runner->kickOffQTProcessor(), Exception);
    EXPECT_EQ(runner->serverCheckStartTime(), clock.now());
    EXPECT_EQ(runner->qtProcessorTask(), nullptr);
    EXPECT_EQ(loop.pendingCount(), 0U);
    EXPECT_EQ(ServerRunner::latestLaunch()->failure, "it cannot be launched: Exec format error");
    EXPECT_EQ(ServerRunner::latestLaunch()->bundle, bundlePath("main"));
}

TEST_F(Launch, CountsFromItsBeginning) {
    makeBundle("main");
    environment.launch = [this](const Task::Launch&) {
        clock.advanceBy(2s);
        return std::make_shared<FakeTask>(1);
    };
    makeRunner();
    const auto begin = clock.now();
    runner->kickOffQTProcessor();
    EXPECT_EQ(runner->serverCheckStartTime(), begin);
}

TEST_F(Launch, EndsOnTheLoopOfTheThreadThatLaunched) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    EXPECT_EQ(loop.pendingCount(), 1U);
    EXPECT_EQ(mainLoop.pendingCount(), 0U);
}

TEST_F(Launch, KeepsASmallFileOfStandardError) {
    makeBundle("main");
    const std::string file = folder.write("KRVQuicktimeProcess/standard-error.log", "the last words");
    makeRunner();
    runner->kickOffQTProcessor();
    EXPECT_EQ(std::filesystem::file_size(file), 14U);
}

TEST_F(Launch, IsOverAfterHalfAMinuteAndPostsTheNotification) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    loop.advanceBy(29999ms);
    EXPECT_NE(runner->serverCheckStartTime(), std::nullopt);
    loop.advanceBy(1ms);
    EXPECT_EQ(runner->serverCheckStartTime(), std::nullopt);
    EXPECT_EQ(notifications, 0);
    mainLoop.runReady();
    EXPECT_EQ(notifications, 1);
    EXPECT_EQ(loop.pendingCount(), 0U);
}

TEST_F(Launch, IsRemembered) {
    makeBundle("main");
    makeRunner();
    runner->kickOffQTProcessor();
    auto attempt = ServerRunner::latestLaunch();
    ASSERT_TRUE(attempt);
    EXPECT_EQ(attempt->bundle, bundlePath("main"));
    EXPECT_EQ(attempt->pid, 100);
    EXPECT_EQ(attempt->failure, "");
    EXPECT_TRUE(attempt->running);
    tasks.at(0)->running = false;
    EXPECT_FALSE(ServerRunner::latestLaunch()->running);
}

// The search for the bundle

class Resource : public Runner {
protected:
    std::optional<std::string> find() { return runner->findResource("KRVQuicktimeProcess", "app"); }
};

TEST_F(Resource, IsTakenFromTheApplicationFirst) {
    makeBundle("main");
    makeBundle("media");
    makeBundle("library");
    classes.registerClass("KRVMedia", Bundle({(folder.path() / "media").string()}));
    makeRunner();
    EXPECT_EQ(find(), bundlePath("main"));
}

TEST_F(Resource, IsTakenFromTheMediaClassBeforeTheLibrary) {
    makeBundle("media");
    makeBundle("library");
    classes.registerClass("KRVMedia", Bundle({(folder.path() / "media").string()}));
    makeRunner();
    EXPECT_EQ(find(), bundlePath("media"));
}

TEST_F(Resource, IsTakenFromTheProgramsOfTheMediaClassToo) {
    makeBundle("media/Contents/MacOS");
    makeBundle("library");
    classes.registerClass("KRVMedia", Bundle({(folder.path() / "media").string()}));
    makeRunner();
    EXPECT_EQ(find(), bundlePath("media/Contents/MacOS"));
}

TEST_F(Resource, IsTakenFromTheLibraryLast) {
    makeBundle("media");
    makeBundle("library");
    makeRunner();
    EXPECT_EQ(find(), bundlePath("library"));
}

TEST_F(Resource, IsTakenFromTheResourcesBeforeTheExecutables) {
    makeBundle("main/Contents/MacOS");
    makeRunner();
    EXPECT_EQ(find(), bundlePath("main/Contents/MacOS"));
    makeBundle("main/Contents/Resources");
    EXPECT_EQ(find(), bundlePath("main/Contents/Resources"));
}

TEST_F(Resource, IsMissingIfNoBundleHasIt) {
    classes.registerClass("KRVMedia", Bundle({(folder.path() / "media").string()}));
    makeRunner();
    EXPECT_EQ(find(), std::nullopt);
}

TEST_F(Resource, IsNotTakenFromAnUnloadedClass) {
    makeBundle("media");
    classes.registerClass("KRVMedia", Bundle({(folder.path() / "media").string()}));
    classes.unregisterClass("KRVMedia");
    makeRunner();
    EXPECT_EQ(find(), std::nullopt);
}

}  // namespace
}  // namespace krv
