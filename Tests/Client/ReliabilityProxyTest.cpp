#include <algorithm>
#include <deque>
#include <stdexcept>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityDecision.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr LinesOf kLines("Source/Client/ReliabilityProxy");

/// A target that follows a script and counts its calls. It is not a ReliabilityDecision.
class Operations : public KRVQTProcessOperations {
public:
    explicit Operations(std::shared_ptr<ScriptedTransport> transport)
        : transport_(std::move(transport)) {}

    bool convertMovie(std::string_view, std::string_view, const VideoSettings&, const AudioSettings&,
                      const ProgressDelegate&, ErrorOut) override {
        return act(true);
    }
    std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut) override {
        auto metadata = std::make_shared<Dictionary>();
        metadata->set("movie", std::string(movie));
        return act(std::shared_ptr<const Dictionary>(metadata));
    }
    Value getInterestingTimesForMovie(std::string_view, bool, std::int32_t index, ErrorOut) override {
        return act(Value(index));
    }
    std::shared_ptr<KRVTransport> transport() const override { return transport_; }
    bool amIRegistered() override { return act(true); }
    bool isServerReadyToTakeRequests() override { return act(true); }
    Array operationsPendingCompletion() override { return act(Array{Value("one")}); }
    void registerWithServer() override { act(true); }
    void unregisterFromServer() override { act(true); }
    bool queueShutdownOfCurrentServer() override { return act(true); }

    /// The behaviour of each call, in order; later calls succeed.
    std::deque<std::function<void()>> script;
    int calls = 0;

protected:
    bool performConvertMovie(std::string_view, std::string_view, std::int32_t, bool, const ProgressDelegate&,
                             ErrorOut) override {
        return act(true);
    }
    bool performCreateThumbnails(std::string_view, std::string_view, Size, const ProgressDelegate&, ErrorOut) override {
        return act(true);
    }
    bool performMuxMovie(std::string_view, std::string_view, const ProgressDelegate&, ErrorOut) override {
        return act(true);
    }
    bool performCancelAllOperations(ErrorOut) override { return act(true); }

private:
    template <typename T>
    T act(T result) {
        ++calls;
        if (!script.empty()) {
            const auto step = std::move(script.front());
            script.pop_front();
            step();
        }
        return result;
    }

    std::shared_ptr<ScriptedTransport> transport_;
};

/// The same, as a ReliabilityDecision with the client's six reliable operations.
class DecidingOperations final : public Operations, public ReliabilityDecision {
public:
    using Operations::Operations;
    bool doesOperationNeedToBeReliable(const Invocation& invocation) const override {
        const auto methods = KRVReliableQTProcessOperations::requiredMethods();
        return std::find(methods.begin(), methods.end(), invocation.selector) != methods.end();
    }
};

void failToCommunicate() {
    throw Exception(std::string(kHTTPServerNSURLConnectionError), "unreachable");
}
void failOtherwise() {
    throw Exception("SomethingElse", "for another reason");
}

class Proxy : public testing::Test {
protected:
    FakeClock clock;
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<DecidingOperations> target = std::make_shared<DecidingOperations>(transport);
    std::shared_ptr<ReliabilityProxy> proxy = ReliabilityProxy::proxyForOperations(target, clock);
    LogRecorder log{15, kLoggingHTTPMessaging | kLoggingDebug};

    Exception raisedBy(const std::function<void()>& call) {
        try {
            call();
        } catch (const Exception& exception) {
            return exception;
        }
        ADD_FAILURE() << "nothing was raised";
        return {"", ""};
    }
    static std::string attempt(int number) {
        return kLines.verbose("callWithRetry:", fmt::format("Attempt {} at calling: getMetadataFor:error:", number));
    }
    static std::string failure() {
        return kLines.info("callWithRetry:", "Failed while trying to call getMetadataFor:error:... waiting for "
                                             "transport to be ready ...");
    }
    static std::vector<std::string> wait(Clock::Duration from, int passes) {
        std::vector<std::string> lines;
        for (int i = 1; i <= passes; ++i) {
            const auto seconds = secondsFromDuration(from) + i * (1.0 + 1.0 / 30);
            lines.push_back(
                kLines.verbose("waitForTransporToBecomeAvailable:",
                               fmt::format("Waiting {:.2f}s for operation getMetadataFor:error: to be available via "
                                           "<ScriptedTransport>",
                                           seconds)));
        }
        return lines;
    }
};

TEST_F(Proxy, RepeatsAReliableCallWhenTheServerIsBack) {
    target->script = {failToCommunicate};
    EXPECT_NE(proxy->getMetadataFor("/movie", nullptr), nullptr);
    EXPECT_EQ(target->calls, 2);
    EXPECT_EQ(proxy->numberOfOperationsInProgress(), 0);
    EXPECT_TRUE(clock.sleeps().empty());
    EXPECT_THAT(log.whole(), ElementsAre(attempt(1), failure(), attempt(2)));
}

TEST_F(Proxy, GivesUpAfterThreeAttemptsAndThreeWaits) {
    target->script = {failToCommunicate, failToCommunicate, failToCommunicate};
    transport->readiness.assign(100, false);
    const auto start = clock.now();
    const Exception exception = raisedBy([&] { (void)proxy->getMetadataFor("/movie", nullptr); });
    EXPECT_EQ(exception.name(), "OperationFailed");
    EXPECT_EQ(exception.reason(), "Call to getMetadataFor:error: failed. The server couldn't be contacted");
    EXPECT_EQ(target->calls, 3);
    EXPECT_EQ(transport->readinessProbes, 18U);
    EXPECT_EQ(clock.sleeps(), std::vector<Clock::Duration>(15, 1s));
    EXPECT_EQ(clock.now() - start, 15 * (1s + Clock::Duration(1s) / 30));
    EXPECT_EQ(proxy->numberOfOperationsInProgress(), 0);
}

TEST_F(Proxy, PropagatesOtherFailuresWithoutRetry) {
    target->script = {failOtherwise};
    const Exception exception = raisedBy([&] { (void)proxy->getMetadataFor("/movie", nullptr); });
    EXPECT_EQ(exception.name(), "SomethingElse");
    EXPECT_EQ(exception.reason(), "for another reason");
    EXPECT_EQ(target->calls, 1);
    EXPECT_EQ(transport->readinessProbes, 0U);
    EXPECT_EQ(proxy->numberOfOperationsInProgress(), 0);
}

TEST_F(Proxy, PropagatesOtherExceptionsAndCountsTheCallDown) {
    target->script = {[] { throw std::runtime_error("an application's own"); }};
    EXPECT_THROW((void)proxy->getMetadataFor("/movie", nullptr), std::runtime_error);
    EXPECT_EQ(target->calls, 1);
    EXPECT_EQ(proxy->numberOfOperationsInProgress(), 0);
}

TEST_F(Proxy, CountsReliableCallsInProgress) {
    std::vector<std::int32_t> counts;
    const auto look = [&] { counts.push_back(proxy->numberOfOperationsInProgress()); };
    target->script = {look, look};
    (void)proxy->getMetadataFor("/movie", nullptr);
    (void)proxy->amIRegistered();
    EXPECT_THAT(counts, ElementsAre(1, 0));
}

TEST_F(Proxy, MakesOtherCallsOnceAndPropagatesTheirExceptions) {
    target->script = {failToCommunicate};
    const Exception exception = raisedBy([&] { proxy->registerWithServer(); });
    EXPECT_EQ(exception.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(target->calls, 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Proxy, ReturnsTheResultOfALaterAttempt) {
    target->script = {failToCommunicate, failToCommunicate};
    transport->readiness = {false, false, true};
    EXPECT_EQ(proxy->getInterestingTimesForMovie("/movie", true, 3, nullptr), Value(3));
    EXPECT_EQ(target->calls, 3);
    EXPECT_EQ(clock.sleeps().size(), 2U);
}

class ProxyWait : public Proxy {
protected:
    bool wait() {
        Invocation invocation{KRVReliableQTProcessOperations::kGetMetadata, [](auto&) {}, target};
        return proxy->waitForTransporToBecomeAvailable(invocation);
    }
};

TEST_F(ProxyWait, ReturnsAtOnceWhenTheTransportIsReady) {
    EXPECT_TRUE(wait());
    EXPECT_TRUE(clock.sleeps().empty());
    EXPECT_EQ(transport->readinessProbes, 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ProxyWait, ProbesSixTimesAndLogsFiveLines) {
    transport->readiness.assign(100, false);
    EXPECT_FALSE(wait());
    EXPECT_EQ(transport->readinessProbes, 6U);
    EXPECT_EQ(log.whole(), Proxy::wait(0s, 5));
}

TEST_F(ProxyWait, EndsAtTheFirstProbeThatSucceeds) {
    transport->readiness = {false, false, true};
    EXPECT_TRUE(wait());
    EXPECT_EQ(clock.sleeps().size(), 2U);
}

TEST_F(ProxyWait, FailsWhenOnlyTheLastProbeSucceeds) {
    transport->readiness = {false, false, false, false, false, true};
    EXPECT_FALSE(wait());
    EXPECT_EQ(transport->readinessProbes, 6U);
}

/// A transport that is never ready, and whose probes take time.
class SlowTransport final : public KRVTransport {
public:
    SlowTransport(FakeClock& clock, Clock::Duration each)
        : clock_(clock)
        , each_(each) {}
    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref&) override { return nullptr; }
    bool isThisACommunicationsFailure(const Exception&) const override { return true; }
    bool serviceReadyToRock() override {
        ++probes;
        clock_.advanceBy(each_);
        return false;
    }
    std::string description() const override { return "<SlowTransport>"; }
    int probes = 0;

private:
    FakeClock& clock_;
    const Clock::Duration each_;
};

TEST_F(ProxyWait, CountsTheTimeThatTheProbesTake) {
    const auto slow = std::make_shared<SlowTransport>(clock, 2s);
    const auto client = std::make_shared<KRVQuicktimeProcessClient>(slow);
    Invocation invocation{KRVReliableQTProcessOperations::kGetMetadata, [](auto&) {}, client};
    EXPECT_FALSE(proxy->waitForTransporToBecomeAvailable(invocation));
    EXPECT_EQ(slow->probes, 2);
}

TEST_F(ProxyWait, EndsWithoutSuccessAfterExactlyFiveSeconds) {
    const auto slow = std::make_shared<SlowTransport>(clock, 5s);
    const auto client = std::make_shared<KRVQuicktimeProcessClient>(slow);
    Invocation invocation{KRVReliableQTProcessOperations::kGetMetadata, [](auto&) {}, client};
    EXPECT_FALSE(proxy->waitForTransporToBecomeAvailable(invocation));
    EXPECT_EQ(slow->probes, 1);
    EXPECT_THAT(clock.sleeps(), IsEmpty());
}

TEST_F(ProxyWait, AProbeThatSucceedsAfterExactlyFiveSecondsIsTooLate) {
    class ReadyAtLast final : public KRVTransport {
    public:
        explicit ReadyAtLast(FakeClock& clock)
            : clock_(clock) {}
        std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref&) override { return nullptr; }
        bool isThisACommunicationsFailure(const Exception&) const override { return true; }
        bool serviceReadyToRock() override {
            clock_.advanceBy(5s);
            return true;
        }
        std::string description() const override { return "<ReadyAtLast>"; }

    private:
        FakeClock& clock_;
    };
    const auto client = std::make_shared<KRVQuicktimeProcessClient>(std::make_shared<ReadyAtLast>(clock));
    Invocation invocation{KRVReliableQTProcessOperations::kGetMetadata, [](auto&) {}, client};
    EXPECT_FALSE(proxy->waitForTransporToBecomeAvailable(invocation));
}

TEST_F(ProxyWait, ProbesTheTransportThatTheTargetHadAtFirst) {
    const auto client = std::make_shared<KRVQuicktimeProcessClient>(transport, clock);
    transport->readiness = {false, false, true};
    loop.perform([&] { client->setTransport(std::make_shared<ScriptedTransport>()); });
    Invocation invocation{KRVReliableQTProcessOperations::kGetMetadata, [](auto&) {}, client};
    EXPECT_TRUE(proxy->waitForTransporToBecomeAvailable(invocation));
    EXPECT_EQ(transport->readinessProbes, 3U);
}

TEST_F(ProxyWait, RunsTheRunLoopOfTheCallingThread) {
    transport->readiness = {false, true};
    bool turned = false;
    loop.perform([&] { turned = true; });
    EXPECT_TRUE(wait());
    EXPECT_TRUE(turned);
}

TEST_F(Proxy, WritesItsLinesOnlyWithBothMasks) {
    const auto linesWith = [&](std::uint32_t additional) {
        additionalApplicationLogLevel = additional;
        log.clear();
        target->script = {failToCommunicate};
        transport->readiness = {false, true};
        (void)proxy->getMetadataFor("/movie", nullptr);
        return log.whole();
    };
    EXPECT_THAT(linesWith(kLoggingHTTPMessaging | kLoggingDebug),
                ElementsAre(attempt(1), failure(), wait(0s, 1).front(), attempt(2)));
    EXPECT_THAT(linesWith(~kLoggingHTTPMessaging), IsEmpty());
    EXPECT_THAT(linesWith(~kLoggingDebug), IsEmpty());
    krv_loggingEnabled = false;
    EXPECT_THAT(linesWith(~0U), IsEmpty());
}

TEST_F(Proxy, WithoutATargetEveryOperationFailsAtOnce) {
    proxy->cleanUp();
    EXPECT_EQ(proxy->realOperations(), nullptr);
    const Exception exception = raisedBy([&] { (void)proxy->getMetadataFor("/movie", nullptr); });
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    EXPECT_THAT(exception.reason(), testing::HasSubstr("getMetadataFor:error:"));
    EXPECT_THROW((void)proxy->transport(), Exception);
    EXPECT_THROW((void)proxy->amIRegistered(), Exception);
    EXPECT_EQ(proxy->numberOfOperationsInProgress(), 0);
    EXPECT_EQ(target->calls, 0);
    proxy->cleanUp();
    proxy->clearTarget();
}

TEST_F(Proxy, ReleasesItsTargetInCleanUp) {
    const std::weak_ptr<DecidingOperations> weak = target;
    target.reset();
    EXPECT_FALSE(weak.expired());
    proxy->cleanUp();
    EXPECT_TRUE(weak.expired());
}

TEST_F(Proxy, ReleasesItsTargetAfterAForwardedCleanUp) {
    int performed = 0;
    Invocation invocation{ReliabilityProxy::kCleanUp, [&](KRVQTProcessOperations&) { ++performed; }, nullptr};
    proxy->forwardInvocation(invocation);
    EXPECT_EQ(performed, 1);
    EXPECT_EQ(invocation.target, target);
    EXPECT_EQ(proxy->realOperations(), nullptr);
    EXPECT_THROW(proxy->forwardInvocation(invocation), Exception);
}

TEST_F(Proxy, KeepsItsTargetIfAForwardedCleanUpThrows) {
    Invocation invocation{ReliabilityProxy::kCleanUp, [](KRVQTProcessOperations&) { failOtherwise(); }, nullptr};
    EXPECT_THROW(proxy->forwardInvocation(invocation), Exception);
    EXPECT_EQ(proxy->realOperations(), target);
}

TEST_F(Proxy, KeepsItsTargetAfterAnyOtherForwardedCall) {
    Invocation invocation{KRVQTProcessOperations::kAmIRegistered, [](KRVQTProcessOperations&) {}, nullptr};
    proxy->forwardInvocation(invocation);
    EXPECT_EQ(proxy->realOperations(), target);
}

TEST_F(Proxy, CleansUpWithoutTouchingItsTarget) {
    proxy->cleanUp();
    EXPECT_EQ(target->calls, 0);
}

class ProxyDecision : public Proxy {
protected:
    bool isReliable(std::string_view selector) const {
        return proxy->doesThisOperationNeedToBeReliable({Selector(selector), nullptr, nullptr});
    }
};

TEST_F(ProxyDecision, IsTheTargetsIfItHasOne) {
    EXPECT_TRUE(isReliable("getMetadataFor:error:"));
    EXPECT_FALSE(isReliable("amIRegistered"));
}

TEST_F(ProxyDecision, IsTrueForAllButTheBaseSelectorsOtherwise) {
    proxy->setRealOperations(std::make_shared<Operations>(transport));
    EXPECT_TRUE(isReliable("getMetadataFor:error:"));
    EXPECT_TRUE(isReliable("amIRegistered"));
    for (const auto* basic :
         {"class", "conformsToProtocol:", "dealloc", "debugDescription", "description", "hash", "init",
          "isEqual:", "isKindOfClass:", "isMemberOfClass:", "isProxy", "respondsToSelector:", "self", "superclass"}) {
        EXPECT_FALSE(isReliable(basic)) << basic;
    }
}

TEST_F(ProxyDecision, IsThatOfTheObjectAtWhichTheCallIsAimed) {
    const auto simple = std::make_shared<Operations>(transport);
    EXPECT_TRUE(proxy->doesThisOperationNeedToBeReliable({Selector("amIRegistered"), nullptr, simple}));
    proxy->setRealOperations(simple);
    EXPECT_FALSE(proxy->doesThisOperationNeedToBeReliable({Selector("amIRegistered"), nullptr, target}));
}

TEST_F(ProxyDecision, MakesEveryCallReliableThen) {
    const auto simple = std::make_shared<Operations>(transport);
    proxy->setRealOperations(simple);
    simple->script = {failToCommunicate};
    EXPECT_TRUE(proxy->amIRegistered());
    EXPECT_EQ(simple->calls, 2);
}

TEST_F(ProxyDecision, OfTheRealClientCoversItsReliableOperations) {
    proxy->setRealOperations(std::make_shared<KRVQuicktimeProcessClient>(transport));
    for (const Selector selector : KRVReliableQTProcessOperations::requiredMethods()) {
        EXPECT_TRUE(isReliable(selector.name())) << selector.name();
    }
    EXPECT_FALSE(isReliable("mergeSources:writeToFile:useShortestTrack:progress:error:"));
    EXPECT_FALSE(isReliable("registerWithServer"));
}

TEST_F(Proxy, ErrorsInTheOutParameterAreNotRetried) {
    proxy->setRealOperations(std::make_shared<KRVQuicktimeProcessClient>(transport, clock));
    transport->fail("refused");
    std::shared_ptr<const Error> error;
    EXPECT_EQ(proxy->getMetadataFor("/movie", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "TransportInvocation");
    EXPECT_EQ(transport->sent().size(), 1U);
}

TEST(ProxyOnTheMainThread, RunsTheCallsOfTheRealLoopWhileItWaits) {
    ASSERT_TRUE(RunLoop::isMainThread());
    FakeClock clock;
    const auto transport = std::make_shared<ScriptedTransport>();
    const auto target = std::make_shared<DecidingOperations>(transport);
    const auto proxy = ReliabilityProxy::proxyForOperations(target, clock);
    target->script = {failToCommunicate};
    transport->readiness = {false, true};
    int callsBefore = 0;
    RunLoop::main().perform([&] { callsBefore = target->calls; });
    EXPECT_NE(proxy->getMetadataFor("/movie", nullptr), nullptr);
    EXPECT_EQ(callsBefore, 1);
    EXPECT_EQ(target->calls, 2);
}

TEST_F(Proxy, RetriesTheRealClient) {
    proxy->setRealOperations(std::make_shared<KRVQuicktimeProcessClient>(transport, clock));
    transport->unreachable().unreachable().unreachable();
    std::shared_ptr<const Error> error;
    EXPECT_EQ(raisedBy([&] { (void)proxy->getMetadataFor("/movie", &error); }).name(), "OperationFailed");
    EXPECT_EQ(transport->sentTypes(), std::vector<std::int32_t>(3, OpProvideMetadata));
    EXPECT_EQ(error, nullptr);
}

TEST_F(Proxy, DoesNotRetryWithoutATransport) {
    const auto client = std::make_shared<KRVQuicktimeProcessClient>(transport, clock);
    proxy->setRealOperations(client);
    client->cleanUp();
    std::shared_ptr<const Error> error;
    EXPECT_EQ(raisedBy([&] { (void)proxy->getMetadataFor("/movie", &error); }).name(), "TransportCheck");
    EXPECT_TRUE(clock.sleeps().empty());
}

}  // namespace
}  // namespace krv
