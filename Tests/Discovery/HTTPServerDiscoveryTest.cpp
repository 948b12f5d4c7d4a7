#include <stdexcept>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using Services = std::vector<std::shared_ptr<NetService>>;
using Lines = std::vector<std::string>;
using Ports = std::vector<std::int64_t>;

constexpr LinesOf kLines("Source/Client/HTTPServerDiscovery");
constexpr const char* kFound = "netServiceBrowser:didFindService:moreComing:";

/// A discovery on a main loop in virtual time. Its thread runs only when a test runs it.
class Discovery : public testing::Test {
protected:
    Discovery() {
        UserDefaults::standard().removeKey("minimumPortNumber");
        environment.makeBrowser = [this] { return browser; };
        environment.mainLoop = [this]() -> RunLoop& { return mainLoop; };
        environment.currentLoop = [this]() -> RunLoop& { return onMainThread ? mainLoop : otherLoop; };
        environment.isMainThread = [this] { return onMainThread; };
        environment.startThread = [this](std::function<void()> body) { thread = std::move(body); };
        environment.now = [this] { return clock.now(); };
        environment.httpClient = [this]() -> HTTPClient& { return http; };
        environment.notificationCenter = [this]() -> NotificationCenter& { return center; };
        token = center.addObserver(kHTTPServerDiscoveryServiceChangeNotification, [this](const Notification& n) {
            ports.push_back(n.value.integerValue());
            EXPECT_EQ(n.value.kind(), Value::Kind::Integer);
            if (onNotification) {
                onNotification();
            }
        });
        discovery = HTTPServerDiscovery::make(environment);
        name = discovery->serviceName();
    }
    ~Discovery() override {
        center.removeObserver(token);
        discovery->stopSearch();
    }

    std::shared_ptr<FakeNetService> ours(long port) { return std::make_shared<FakeNetService>(name, port); }
    static std::shared_ptr<FakeNetService> foreign(const char* its = "foreign") {
        return std::make_shared<FakeNetService>(its, 9999);
    }
    std::size_t searches() const { return browser->searches().size(); }

    FakeClock clock;
    FakeRunLoop mainLoop{clock};
    FakeRunLoop otherLoop{clock};
    RunLoop::Replacement replacement{mainLoop};
    FakeHTTPClient http;
    NotificationCenter center;
    NotificationCenter::Token token;
    std::shared_ptr<FakeServiceBrowser> browser = std::make_shared<FakeServiceBrowser>();
    HTTPServerDiscovery::Environment environment;
    bool onMainThread = true;
    std::function<void()> thread;
    std::function<void()> onNotification;
    std::vector<std::int64_t> ports;
    std::shared_ptr<HTTPServerDiscovery> discovery;
    std::string name;
};

TEST_F(Discovery, KnowsNothingBeforeTheFirstResult) {
    EXPECT_EQ(discovery->servicePortNumber(), 0);
    EXPECT_TRUE(ports.empty());
    EXPECT_EQ(name, ServerNaming::machineSpecificNameFor("KRVQuicktimeProcess"));
    EXPECT_EQ(discovery->browser(), browser);
    EXPECT_EQ(searches(), 0U);
}

TEST_F(Discovery, LogsTheNameItSearchesFor) {
    LogRecorder log;
    const auto another = HTTPServerDiscovery::make(environment);
    EXPECT_EQ(log.whole(),
              (Lines{kLines.info("init", "HTTP Server discovery initializing with name: KRVQuicktimeProcess"),
                     kLines.info("init", "HTTP Discovery will look for: " + name)}));
}

TEST_F(Discovery, ItsThreadBrowsesForHTTPServicesOfTheLocalDomain) {
    // Only an exception ends the thread's loop.
    onMainThread = false;
    otherLoop.performAfterDelay(1s, discovery, Selector("test"), [] { throw Exception("Test", "stop here"); });
    LogRecorder log;
    thread();
    ASSERT_EQ(searches(), 1U);
    EXPECT_EQ(browser->searches()[0], std::make_pair(std::string("_http._tcp."), std::string("local.")));
    EXPECT_EQ(log.whole(), (Lines{kLines.info("startDiscoveryOnThread", "HTTP Server Discovery started searching..."),
                                  kLines.error("startDiscoveryOnThread", "Exception in HTTPDiscovery: stop here"),
                                  kLines.warning("startDiscoveryOnThread", "HTTP discovery search is terminating")}));
    EXPECT_EQ(otherLoop.pendingCount(), 0U);
}

TEST_F(Discovery, ItsThreadWaitsInOneLongPeriodAfterAnother) {
    onMainThread = false;
    int periods = 0;
    environment.now = [&] {
        ++periods;
        return clock.now();
    };
    discovery = HTTPServerDiscovery::make(environment);
    const auto begin = clock.now();
    std::optional<Clock::TimePoint> keepAlive;
    otherLoop.performAfterDelay(1h, discovery, Selector("test"), [&] {
        keepAlive = otherLoop.nextCall();
        EXPECT_EQ(periods, 1);
    });
    otherLoop.performAfterDelay(4294967296s, discovery, Selector("test"), [] { throw Exception("Test", "stop here"); });
    LogRecorder log(kLogFlagError);
    thread();
    EXPECT_EQ(keepAlive, begin + 2147483647s);
    EXPECT_EQ(periods, 2);
    EXPECT_EQ(clock.now() - begin, 4294967296s);
    EXPECT_EQ(log.whole(), Lines{kLines.error("startDiscoveryOnThread", "Exception in HTTPDiscovery: stop here")});
}

TEST_F(Discovery, AnotherExceptionLeavesItsThreadAfterTheLastLine) {
    onMainThread = false;
    otherLoop.performAfterDelay(1s, discovery, Selector("test"), [] { throw std::runtime_error("own"); });
    LogRecorder log;
    EXPECT_THROW(thread(), std::runtime_error);
    EXPECT_EQ(log.whole(), (Lines{kLines.info("startDiscoveryOnThread", "HTTP Server Discovery started searching..."),
                                  kLines.warning("startDiscoveryOnThread", "HTTP discovery search is terminating")}));
}

TEST_F(Discovery, AMatchingServiceStopsTheBrowserAndIsResolved) {
    discovery->startSearch();
    const auto service = ours(8001);
    const auto later = foreign();
    browser->show({service, later});
    EXPECT_FALSE(browser->isSearching());
    EXPECT_EQ(service->resolutions(), (std::vector<Clock::Duration>{5s}));
    EXPECT_TRUE(ports.empty());
    mainLoop.runReady();
    EXPECT_EQ(discovery->servicePortNumber(), 8001);
    EXPECT_EQ(ports, (Ports{8001}));
}

TEST_F(Discovery, ABatchIsExaminedUpToTheFirstMatch) {
    discovery->startSearch();
    LogRecorder log(15, kLoggingHTTPDiscovery);
    browser->show({foreign("a"), ours(8001), foreign("b")});
    EXPECT_EQ(log.whole(), (Lines{kLines.verbose(kFound, "Observing network service: a. More on the way?:1"),
                                  kLines.verbose(kFound, "Observing network service: " + name + ". More on the way?:1"),
                                  kLines.verbose(kFound, name + " is up. Will now resolve.")}));
}

TEST_F(Discovery, AServiceWhoseNameIsLongerIsForeign) {
    discovery->startSearch();
    browser->show(
        {std::make_shared<FakeNetService>(name + " #2", 8001), std::make_shared<FakeNetService>("a" + name, 8001)});
    mainLoop.runReady();
    EXPECT_EQ(ports, Ports{-1});
}

TEST_F(Discovery, ABatchThatEndsOnAForeignServiceMeansAbsent) {
    discovery->startSearch();
    LogRecorder log(15, kLoggingHTTPDiscovery);
    browser->show({foreign("a"), foreign("b")});
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    EXPECT_EQ(ports, (Ports{-1}));
    EXPECT_EQ(log.whole(), (Lines{kLines.verbose(kFound, "Observing network service: a. More on the way?:1"),
                                  kLines.verbose(kFound, "Observing network service: b. More on the way?:0"),
                                  kLines.verbose(kFound, name + " is down. Will begin search again shortly."),
                                  kLines.info("beginSearchAgainIn:", "Beginning HTTP Server search in 0.25s")}));
    EXPECT_EQ(searches(), 1U);
    mainLoop.advanceBy(249ms);
    EXPECT_EQ(searches(), 1U);
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(searches(), 2U);
}

TEST_F(Discovery, TheLinesOfACycleNeedTheirMask) {
    LogRecorder log(15, ~kLoggingHTTPDiscovery);
    discovery->startSearch();
    browser->show({foreign()});
    discovery->startSearch();
    browser->show({ours(8001)});
    mainLoop.runReady();
    EXPECT_EQ(discovery->servicePortNumber(), 8001);
    discovery->startSearch();
    browser->show({ours(-1)});
    mainLoop.runReady();
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    onMainThread = false;
    discovery->beginSearchAgainIn(1s);
    EXPECT_EQ(log.whole(), Lines{});
}

TEST_F(Discovery, EachResolutionIsPostedAndStartsTheNextCycleInASecond) {
    discovery->startSearch();
    for (std::size_t round = 1; round <= 3; ++round) {
        browser->show({ours(8001)});
        mainLoop.runReady();
        EXPECT_EQ(ports.size(), round);
        EXPECT_FALSE(browser->isSearching());
        mainLoop.advanceBy(999ms);
        EXPECT_EQ(searches(), round);
        mainLoop.advanceBy(1ms);
        EXPECT_EQ(searches(), round + 1);
    }
    EXPECT_EQ(ports, (Ports{8001, 8001, 8001}));
}

TEST_F(Discovery, TheResolvedLineShowsThePreviousPort) {
    discovery->resolvedToPort(8001, 0s);
    LogRecorder log(15, kLoggingHTTPDiscovery);
    discovery->resolvedToPort(8002, 0s);
    EXPECT_EQ(log.whole(),
              (Lines{kLines.verbose("resolvedToPort:beginAgainIn:", "Resolved " + name + ". It has port: 8001")}));
    EXPECT_EQ(discovery->servicePortNumber(), 8002);
}

TEST_F(Discovery, AnAbsentServerIsRecordedWithoutALine) {
    LogRecorder log(15, ~0U);
    discovery->setServicePortNumber(8001);
    discovery->resolvedToPort(0, 0s);
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    discovery->resolvedToPort(-7, 0s);
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    EXPECT_EQ(ports, (Ports{-1, -1}));
    EXPECT_EQ(log.whole(), Lines{});
}

TEST_F(Discovery, TheLowestPortIsOne) {
    discovery->resolvedToPort(1, 0s);
    EXPECT_EQ(discovery->servicePortNumber(), 1);
}

TEST_F(Discovery, AResultStopsTheSearchUntilTheNextCycle) {
    discovery->startSearch();
    discovery->resolvedToPort(8001, 1s);
    EXPECT_FALSE(browser->isSearching());
    mainLoop.advanceBy(1s);
    EXPECT_TRUE(browser->isSearching());
    discovery->stopSearch();
    EXPECT_FALSE(browser->isSearching());
}

TEST_F(Discovery, ADelayOfZeroStartsNoCycle) {
    discovery->startSearch();
    discovery->resolvedToPort(8001, 0s);
    EXPECT_TRUE(browser->isSearching());
    EXPECT_EQ(ports, (Ports{8001}));
    browser->stop();
    mainLoop.advanceBy(10s);
    EXPECT_EQ(searches(), 1U);
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(Discovery, AServiceThatDoesNotResolveMeansAbsentForASecond) {
    discovery->startSearch();
    browser->show({ours(-1)});
    LogRecorder log(15, kLoggingHTTPDiscovery);
    discovery->setServicePortNumber(8001);
    mainLoop.runReady();
    EXPECT_EQ(log.whole(), (Lines{kLines.verbose("netService:didNotResolve:", "Failed to resolve " + name + "."),
                                  kLines.info("beginSearchAgainIn:", "Beginning HTTP Server search in 1.00s")}));
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    EXPECT_EQ(ports, Ports{-1});
    mainLoop.advanceBy(999ms);
    EXPECT_EQ(searches(), 1U);
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(searches(), 2U);
}

/// A service that nobody keeps but its user, and that resolves when a test says so.
class PassiveService final : public NetService {
public:
    explicit PassiveService(std::string name)
        : name_(std::move(name)) {}
    [[nodiscard]] const std::string& name() const override { return name_; }
    [[nodiscard]] long port() const override { return 8001; }
    void setDelegate(std::weak_ptr<NetServiceDelegate> delegate) override { its = std::move(delegate); }
    void resolveWithTimeout(Clock::Duration) override {}

    std::weak_ptr<NetServiceDelegate> its;

private:
    const std::string name_;
};

TEST_F(Discovery, AServiceIsKeptWhileItResolvesAndNoLonger) {
    for (const bool resolves : {true, false}) {
        discovery->startSearch();
        auto service = std::make_shared<PassiveService>(name);
        const std::weak_ptr<PassiveService> weak = service;
        browser->show({std::exchange(service, nullptr)});
        ASSERT_FALSE(weak.expired());
        const auto delegate = weak.lock()->its.lock();
        ASSERT_EQ(delegate, discovery);
        if (resolves) {
            delegate->netServiceDidResolveAddress(weak.lock());
        } else {
            delegate->didNotResolve(weak.lock());
        }
        EXPECT_TRUE(weak.expired()) << resolves;
        EXPECT_EQ(discovery->servicePortNumber(), resolves ? 8001 : -1);
    }
}

TEST_F(Discovery, ASearchThatFindsNothingMeansAbsentAfterTwoSeconds) {
    discovery->startSearch();
    mainLoop.advanceBy(2s);
    EXPECT_EQ(ports, (Ports{-1}));
    EXPECT_EQ(searches(), 1U);
    mainLoop.advanceBy(250ms);
    EXPECT_EQ(searches(), 2U);
}

TEST_F(Discovery, AnAbsenceReportedOnAnotherThreadStartsTheSearchOnTheMainThread) {
    discovery->startSearch();
    onMainThread = false;
    LogRecorder log(15, kLoggingHTTPDiscovery);
    discovery->serverIsntThere();
    EXPECT_EQ(
        log.whole(),
        (Lines{kLines.info("serverIsntThere", "App is saying server isn't there - and forcing service refresh"),
               kLines.info("serverIsntThere", "Current browser is: <FakeServiceBrowser>"),
               kLines.info("beginSearchAgainIn:", "Pushing request to begin search again in 0.25s to main thread")}));
    EXPECT_EQ(ports, (Ports{-1}));
    onMainThread = true;
    mainLoop.runReady();
    EXPECT_EQ(log.whole().back(), kLines.info("beginSearchAgainIn:", "Beginning HTTP Server search in 0.25s"));
    mainLoop.advanceBy(249ms);
    EXPECT_EQ(searches(), 1U);
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(searches(), 2U);
    // The poll that the other thread scheduled stays on that thread's loop, in addition to the main thread's.
    EXPECT_EQ(otherLoop.pendingCount(), 1U);
}

TEST_F(Discovery, AnAbsenceIsReportedWithoutAnyMask) {
    LogRecorder log;
    discovery->setBrowser(nullptr);
    discovery->serverIsntThere();
    EXPECT_EQ(log.whole(),
              (Lines{kLines.info("serverIsntThere", "App is saying server isn't there - and forcing service refresh"),
                     kLines.info("serverIsntThere", "Current browser is: (null)")}));
    discovery->setBrowser(browser);
}

TEST_F(Discovery, ALaterCycleReplacesThePollOfAnEarlierOne) {
    discovery->setBrowser(nullptr);  // so that nothing but the polls is on the loops
    for (const bool main : {true, false}) {
        onMainThread = main;
        FakeRunLoop& its = main ? mainLoop : otherLoop;
        discovery->beginSearchAgainIn(1s);
        const std::size_t pending = its.pendingCount();
        discovery->beginSearchAgainIn(1s);
        // On the main thread the search that was scheduled earlier stays.
        EXPECT_EQ(its.pendingCount(), main ? pending + 1 : pending);
    }
    onMainThread = true;
    mainLoop.advanceBy(4s);
    discovery->beginSearchAgainIn(1s);
    mainLoop.advanceBy(4999ms);
    EXPECT_TRUE(http.requests().empty());
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(http.requests().size(), 10U);
    discovery->setBrowser(browser);
}

TEST_F(Discovery, StoppingCancelsThePollOfTheThreadThatStops) {
    discovery->beginSearchAgainIn(1s);
    onMainThread = false;
    discovery->beginSearchAgainIn(1s);
    const std::size_t onMain = mainLoop.pendingCount();
    EXPECT_EQ(otherLoop.pendingCount(), 1U);
    discovery->stopSearch();
    EXPECT_EQ(otherLoop.pendingCount(), 0U);
    EXPECT_EQ(mainLoop.pendingCount(), onMain);
    onMainThread = true;
}

TEST_F(Discovery, PollsTenPortsFromTheMinimumFiveSecondsAfterARestartWithoutResult) {
    UserDefaults::standard().setString("minimumPortNumber", "12000");
    discovery->beginSearchAgainIn(1s);
    browser->setDelegate({});  // so that not even the ended batches are reported
    mainLoop.advanceBy(4999ms);
    EXPECT_TRUE(http.requests().empty());
    LogRecorder log;
    mainLoop.advanceBy(1ms);
    ASSERT_EQ(http.requests().size(), 10U);
    EXPECT_EQ(http.urls()[0], "http://localhost:12000/status");
    EXPECT_EQ(http.urls()[9], "http://localhost:12009/status");
    for (const HTTPRequest& request : http.requests()) {
        EXPECT_EQ(request.timeout, 1s);
        EXPECT_FALSE(request.body);
    }
    EXPECT_EQ(log.whole(), (Lines{kLines.info("fallbackToHTTPPolling",
                                              "Couldn't find server on ports 8000-8010 via HTTP polling")}));
    EXPECT_TRUE(ports.empty());
    EXPECT_EQ(discovery->servicePortNumber(), 0);
    UserDefaults::standard().removeKey("minimumPortNumber");
}

TEST_F(Discovery, ThePollStopsAtTheHighestPort) {
    UserDefaults::standard().setString("minimumPortNumber", "65530");
    discovery->fallbackToHTTPPolling();
    EXPECT_EQ(http.requests().size(), 5U);
    EXPECT_EQ(http.urls().back(), "http://localhost:65534/status");
    UserDefaults::standard().removeKey("minimumPortNumber");
}

TEST_F(Discovery, ThePollComputesItsBoundBeforeEachProbe) {
    http.respond("http://localhost:8002/status", [](const HTTPRequest&) {
        UserDefaults::standard().setString("minimumPortNumber", "7995");
        return HTTPResponse{};
    });
    discovery->fallbackToHTTPPolling();
    UserDefaults::standard().removeKey("minimumPortNumber");
    EXPECT_EQ(http.urls().back(), "http://localhost:8004/status");
    EXPECT_EQ(http.requests().size(), 5U);
}

TEST_F(Discovery, APollWithAResponseRecordsThePort) {
    http.respond("http://localhost:8003/status", FakeHTTPClient::reply("", 404));
    http.respond("http://localhost:8001/status", FakeHTTPClient::cutShort(""));
    http.respond("http://localhost:8002/status", HTTPResponse{});
    discovery->fallbackToHTTPPolling();
    EXPECT_EQ(http.requests().size(), 4U);
    EXPECT_EQ(discovery->servicePortNumber(), 8003);
    EXPECT_EQ(ports, (Ports{8003}));
    mainLoop.advanceBy(999ms);
    EXPECT_EQ(searches(), 0U);
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(searches(), 1U);
}

TEST_F(Discovery, AResultCancelsThePoll) {
    discovery->beginSearchAgainIn(1s);
    mainLoop.advanceBy(1s);
    for (int round = 0; round < 10; ++round) {
        browser->show({ours(8001)});
        mainLoop.runReady();
        mainLoop.advanceBy(1s);
    }
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(Discovery, FindsAServerWithoutMulticastWithinSevenSeconds) {
    http.respond("http://localhost:8000/status", FakeHTTPClient::reply(""));
    discovery->startSearch();
    mainLoop.advanceBy(7250ms);
    EXPECT_EQ(discovery->servicePortNumber(), 8000);
}

TEST_F(Discovery, StoppingCancelsAPendingPollButNotAPendingSearch) {
    discovery->beginSearchAgainIn(1s);
    discovery->stopSearch();
    mainLoop.advanceBy(1s);
    EXPECT_EQ(searches(), 1U);
    browser->stop();
    mainLoop.advanceBy(10s);
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(Discovery, TheDelayMayBeGivenInSeconds) {
    discovery->beginSearchAgainWithNumber(0.5);
    mainLoop.advanceBy(499ms);
    EXPECT_EQ(searches(), 0U);
    mainLoop.advanceBy(1ms);
    EXPECT_EQ(searches(), 1U);
}

TEST_F(Discovery, TheNotificationHasItsNameAndNoObject) {
    int posted = 0;
    const auto observation =
        center.addObserver("kHTTPServerDiscoveryServiceChangeNotification", [&](const Notification& notification) {
            ++posted;
            EXPECT_EQ(notification.object, nullptr);
        });
    discovery->resolvedToPort(8005, 0s);
    discovery->resolvedToPort(8005, 0s);
    center.removeObserver(observation);
    EXPECT_EQ(posted, 2);
    EXPECT_EQ(kHTTPServerDiscoveryDefaultServiceName, "KRVQuicktimeProcess");
}

TEST_F(Discovery, ItsEndStopsTheBrowser) {
    auto another = HTTPServerDiscovery::make(environment);
    thread = nullptr;
    another->startSearch();
    EXPECT_TRUE(browser->isSearching());
    another.reset();
    EXPECT_FALSE(browser->isSearching());
}

TEST_F(Discovery, AnObserverMayReadThePort) {
    long seen = 0;
    onNotification = [&] { seen = discovery->servicePortNumber(); };
    discovery->resolvedToPort(8005, 0s);
    EXPECT_EQ(seen, 8005);
}

TEST_F(Discovery, AChangedServiceNameIsTheOneThatMatches) {
    discovery->setServiceName("another");
    discovery->startSearch();
    browser->show({std::make_shared<FakeNetService>("another", 8042)});
    mainLoop.runReady();
    EXPECT_EQ(discovery->servicePortNumber(), 8042);
}

TEST_F(Discovery, ASilentBatchMeansAbsenceButIsNotLogged) {
    discovery->startSearch();
    LogRecorder log(15, kLoggingHTTPDiscovery);
    discovery->didFindService(browser, nullptr, false);
    EXPECT_EQ(discovery->servicePortNumber(), -1);
    EXPECT_EQ(ports, Ports{-1});
    EXPECT_EQ(log.whole(), (Lines{kLines.info("beginSearchAgainIn:", "Beginning HTTP Server search in 0.25s")}));
    discovery->didFindService(browser, nullptr, true);
    EXPECT_EQ(ports.size(), 1U);
}

TEST_F(Discovery, AnHourThatItsOwnThreadStartsLeavesThatThreadAlone) {
    onMainThread = false;
    otherLoop.performAfterDelay(0s, discovery, Selector("test"), [] { throw Exception("Test", "stop here"); });
    thread();  // starts the first search and ends by the exception
    const std::size_t pendingOnItsThread = otherLoop.pendingCount();
    onMainThread = true;
    for (int second = 1; second <= 3600; ++second) {
        if (browser->isSearching()) {
            browser->show({ours(8000)});
        }
        mainLoop.advanceBy(1s);
        ASSERT_EQ(otherLoop.pendingCount(), pendingOnItsThread);
    }
    EXPECT_EQ(discovery->servicePortNumber(), 8000);
    EXPECT_TRUE(http.requests().empty());
    // About one notification a second.
    EXPECT_GT(ports.size(), 3000U);
    EXPECT_LE(ports.size(), 3601U);
}

TEST_F(Discovery, AnHourWithAHealthyServerLeavesNothingPending) {
    discovery->startSearch();
    std::size_t pendingAfterAMinute = 0;
    for (int second = 1; second <= 3600; ++second) {
        if (browser->isSearching()) {
            browser->show({ours(8000)});
        }
        mainLoop.advanceBy(1s);
        if (second == 60) {
            pendingAfterAMinute = mainLoop.pendingCount();
        }
    }
    EXPECT_EQ(discovery->servicePortNumber(), 8000);
    EXPECT_LE(mainLoop.pendingCount(), pendingAfterAMinute);
    // About one cycle per second, and no request to any server.
    EXPECT_GT(searches(), 3000U);
    EXPECT_LE(searches(), 3601U);
    EXPECT_TRUE(http.requests().empty());
}

}  // namespace
}  // namespace krv
