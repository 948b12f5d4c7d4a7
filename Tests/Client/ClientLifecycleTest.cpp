// Creation and clean-up of clients. Tests that need a real server are among the system tests.
#include <algorithm>
#include <functional>
#include <thread>

#include <KRVQTProcessClient/Client/ReliabilityProxy.h>

#include "RunnerFixture.h"

namespace krv {
namespace {

using testing::ElementsAre;

constexpr LinesOf kClientLines("Source/Client/KRVQuicktimeProcessClient");
constexpr LinesOf kMonitorLines("Source/Monitoring/KRVProcessMonitor");

class Lifecycle : public RunnerFixture {
protected:
    ~Lifecycle() override { KRVQuicktimeProcessClient::destroySingleton(); }
    std::shared_ptr<KRVQuicktimeProcessClient> monitoring() {
        return KRVQuicktimeProcessClient::initWithTransport(transport, true, environment);
    }
    static std::string raisedBy(const std::function<void()>& call) {
        try {
            call();
        } catch (const Exception& exception) {
            return exception.name() + ": " + exception.reason();
        }
        return "nothing";
    }
};

/// A transport that calls a function when it is destroyed, which is when its client releases it.
class LastLook final : public KRVTransport {
public:
    explicit LastLook(std::function<void()> look)
        : look_(std::move(look)) {}
    ~LastLook() override { look_(); }
    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref&) override { return nullptr; }
    bool isThisACommunicationsFailure(const Exception&) const override { return false; }
    bool serviceReadyToRock() override { return false; }
    std::string description() const override { return "<LastLook>"; }

private:
    const std::function<void()> look_;
};

TEST_F(Lifecycle, AClientHasAMonitorATimeOutAndItsTransport) {
    LogRecorder log;
    const auto made = KRVQuicktimeProcessClient::initWithTransport(transport, false);
    EXPECT_THAT(log.whole(), ElementsAre(kMonitorLines.info("init", "Process monitor started"),
                                         kClientLines.info("initWithMonitor:", "KRVQuicktimeProcessClient started")));
    EXPECT_NE(made->procMonitor(), nullptr);
    EXPECT_EQ(made->serverRunner(), nullptr);
    EXPECT_EQ(made->progressTimeoutDuration(), 60.0F);
    EXPECT_EQ(made->transport(), transport);
}

TEST_F(Lifecycle, WithoutMonitoringTheServerIsNeverContacted) {
    const auto made = KRVQuicktimeProcessClient::initWithTransport(transport, false, environment);
    EXPECT_EQ(thread, nullptr);
    loop.advanceBy(std::chrono::hours(1));
    mainLoop.advanceBy(std::chrono::hours(1));
    EXPECT_TRUE(sent().empty());
}

TEST_F(Lifecycle, MonitoringCreatesARunner) {
    LogRecorder log;
    const auto made = monitoring();
    EXPECT_THAT(log.whole(),
                ElementsAre(kMonitorLines.info("init", "Process monitor started"),
                            kRunnerLines.info("initWithProcessMonitor:andClient:",
                                              "Process monitor initialized with client: " + made->description()),
                            kClientLines.info("initWithMonitor:", "KRVQuicktimeProcessClient started")));
    ASSERT_NE(made->serverRunner(), nullptr);
    EXPECT_NE(thread, nullptr);
    made->cleanUp();
}

TEST_F(Lifecycle, MonitoringClientIsKeptByItsRunnerUntilCleanUp) {
    auto made = monitoring();
    std::weak_ptr<ServerRunner> theRunner = made->serverRunner();
    thread = nullptr;  // as if the thread had exited
    const std::weak_ptr<KRVQuicktimeProcessClient> weak = made;
    made.reset();
    ASSERT_FALSE(weak.expired());
    weak.lock()->cleanUp();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(theRunner.expired());
}

TEST_F(Lifecycle, CleanUpStopsEverythingOnce) {
    const auto made = monitoring();
    const auto theRunner = made->serverRunner();
    LogRecorder log;
    made->cleanUp();
    EXPECT_EQ(made->serverRunner(), nullptr);
    EXPECT_EQ(made->procMonitor(), nullptr);
    EXPECT_EQ(made->transport(), nullptr);
    EXPECT_FALSE(theRunner->running());
    made->setTransport(transport);
    made->cleanUp();
    EXPECT_EQ(made->transport(), transport);
}

TEST_F(Lifecycle, CleanUpLetsGoOfTheRunnerAndTheMonitor) {
    const auto made = monitoring();
    std::weak_ptr<KRVProcessMonitor> itsMonitor = made->procMonitor();
    std::weak_ptr<ServerRunner> theRunner = made->serverRunner();
    thread = nullptr;  // as if the thread had exited
    made->cleanUp();
    EXPECT_TRUE(itsMonitor.expired());
    EXPECT_TRUE(theRunner.expired());
}

TEST_F(Lifecycle, CleanUpMayReleaseTheLastReferenceToTheClient) {
    std::weak_ptr<KRVQuicktimeProcessClient> weak;
    bool outlivedItsTransport = false;
    auto made = KRVQuicktimeProcessClient::initWithTransport(
        std::make_shared<LastLook>([&] { outlivedItsTransport = !weak.expired(); }), true, environment);
    thread = nullptr;  // as if the thread had exited
    weak = made;
    KRVQuicktimeProcessClient* const keptByItsRunner = made.get();
    made.reset();
    keptByItsRunner->cleanUp();
    EXPECT_TRUE(outlivedItsTransport);
    EXPECT_TRUE(weak.expired());
}

TEST_F(Lifecycle, AClientThatIsDestroyedCleansUp) {
    auto made = monitoring();
    const auto theRunner = made->serverRunner();
    theRunner->cleanUp();  // lets go of the client
    theRunner->setRunning(true);
    made.reset();
    EXPECT_FALSE(theRunner->running());
}

TEST_F(Lifecycle, CallsAfterCleanUpGetNoReply) {
    const auto made = KRVQuicktimeProcessClient::initWithTransport(transport, false);
    made->cleanUp();
    EXPECT_FALSE(made->amIRegistered());
    EXPECT_TRUE(made->isServerReadyToTakeRequests());
    EXPECT_TRUE(sent().empty());
}

TEST_F(Lifecycle, InitAlwaysThrows) {
    EXPECT_THAT(raisedBy([] { (void)KRVQuicktimeProcessClient::init(); }),
                testing::AllOf(testing::StartsWith("NSInvalidArgumentException: "), testing::HasSubstr("init")));
}

TEST_F(Lifecycle, FirstUseOfTheSharedClientMustBeOnTheMainThread) {
    std::string raised;
    std::thread([&] { raised = raisedBy([] { (void)KRVQuicktimeProcessClient::defaultClient(); }); }).join();
    EXPECT_EQ(raised, "NotMainThread: Please start this object on the main thread first");
    EXPECT_EQ(__default_krv_quicktime_process_client, nullptr);
}

TEST_F(Lifecycle, ClientWithTransportBecomesTheSharedClientWithoutProxyOnAnyThread) {
    std::shared_ptr<KRVQuicktimeProcessClient> bare;
    std::thread([&] { bare = KRVQuicktimeProcessClient::clientWithTransport(transport, false); }).join();
    EXPECT_EQ(__default_krv_quicktime_process_client, bare);
    EXPECT_EQ(KRVQuicktimeProcessClient::defaultClient(), bare);
    std::shared_ptr<KRVQTProcessOperations> elsewhere;
    std::thread([&] { elsewhere = KRVQuicktimeProcessClient::defaultClient(); }).join();
    EXPECT_EQ(elsewhere, bare);
}

TEST_F(Lifecycle, AnotherClientReplacesTheSharedOneWithoutCleaningItUp) {
    const auto first = KRVQuicktimeProcessClient::clientWithTransport(transport, false);
    const auto second = KRVQuicktimeProcessClient::clientWithTransport(transport, false);
    EXPECT_NE(first, second);
    EXPECT_EQ(KRVQuicktimeProcessClient::defaultClient(), second);
    EXPECT_EQ(first->transport(), transport);
}

TEST_F(Lifecycle, DestroyingTheSharedClientCleansUpAClientWithoutProxy) {
    const auto bare = KRVQuicktimeProcessClient::clientWithTransport(transport, false);
    KRVQuicktimeProcessClient::destroySingleton();
    EXPECT_EQ(__default_krv_quicktime_process_client, nullptr);
    EXPECT_EQ(bare->transport(), nullptr);
}

TEST_F(Lifecycle, DestroyingTheSharedClientOnlyClearsTheTargetOfAProxy) {
    const auto made = monitoring();
    const auto theRunner = made->serverRunner();
    const auto proxy = ReliabilityProxy::proxyForOperations(made);
    __default_krv_quicktime_process_client = proxy;
    KRVQuicktimeProcessClient::destroySingleton();
    EXPECT_EQ(proxy->realOperations(), nullptr);
    EXPECT_EQ(made->serverRunner(), theRunner);
    EXPECT_EQ(made->transport(), transport);
    made->cleanUp();
}

TEST_F(Lifecycle, TheSharedClientIsCleanedUpWhileItIsStillTheSharedOne) {
    std::shared_ptr<KRVQTProcessOperations> seen;
    const auto bare = KRVQuicktimeProcessClient::clientWithTransport(
        std::make_shared<LastLook>([&] { seen = KRVQuicktimeProcessClient::defaultClient(); }), false);
    KRVQuicktimeProcessClient::destroySingleton();
    EXPECT_EQ(seen, bare);
    EXPECT_EQ(__default_krv_quicktime_process_client, nullptr);
}

TEST_F(Lifecycle, TheOldSharedClientIsReleasedBeforeTheNewOneIsMade) {
    const LogRecorder log;
    std::vector<std::string> before;
    (void)KRVQuicktimeProcessClient::clientWithTransport(std::make_shared<LastLook>([&] { before = log.texts(); }),
                                                         false);
    const auto first = log.texts();
    (void)KRVQuicktimeProcessClient::clientWithTransport(transport, false);
    ASSERT_GT(log.texts().size(), first.size());
    // The old client's monitor is released by then, and nothing of the new client exists.
    EXPECT_EQ(std::count(before.begin(), before.end(), "KRVQuicktimeProcessClient started"), 1);
    EXPECT_EQ(std::count(before.begin(), before.end(), "Process monitor started"), 1);
}

TEST_F(Lifecycle, DestroyingAMissingSharedClientDoesNothing) {
    EXPECT_NO_THROW(KRVQuicktimeProcessClient::destroySingleton());
    EXPECT_NO_THROW(KRVQuicktimeProcessClient::destroySingleton());
}

}  // namespace
}  // namespace krv
