#include <cmath>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using R = KRVOperationBase;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr LinesOf kLines("Source/Client/TransportInvocation");
constexpr const char* kWaiting = "invokeOverTransportGetProgressWaitToComplete:error:progressTimeout:";
constexpr const char* kCancelling = "tryToCancelOperation:usingTransport:";

class Observer : public OperationProgress {
public:
    bool operation(const R::Ref& operation, float progress) override {
        seen.push_back(progress);
        last = operation;  // weak, because the operation keeps a reference to its observer
        return answer(progress);
    }
    std::vector<float> seen;
    std::weak_ptr<R> last;
    std::function<bool(float)> answer = [](float) { return true; };
};

class Wait : public testing::Test {
protected:
    Wait() { request->setProgressDelegate(observer); }

    static R::Ref state(float progress, bool completed = false) {
        const auto record = R::progressAndCompletionOperation("u");
        record->setProgress(progress, completed);
        return record;
    }
    static R::Ref accepted() {
        const auto record = R::encodeVideoOperation("/s", "/d");
        record->setUniqueID("u");
        return record;
    }
    R::Ref wait(float timeout = 60.0F) {
        return invocation->invokeOverTransportGetProgressWaitToComplete(transport, &error, timeout);
    }
    /// Makes all polls after the script report this progress.
    void reportForEver(float progress, int polls = 1000) {
        for (int i = 0; i < polls; ++i) {
            transport->reply(state(progress));
        }
    }
    std::size_t count(std::int32_t type) const {
        const auto types = transport->sentTypes();
        return static_cast<std::size_t>(std::count(types.begin(), types.end(), type));
    }

    FakeClock clock;
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
    R::Ref request = R::encodeVideoOperation("/s", "/d");
    TransportInvocation::Ref invocation = TransportInvocation::invocationWith(request, clock);
    std::shared_ptr<const Error> error;
};

TEST_F(Wait, CompletionReturnsTheFirstReply) {
    const auto first = accepted();
    first->arguments()->set("mark", "first");
    transport->reply(first).reply(state(0.5F)).reply(state(1.0F, true));
    const auto result = wait();
    ASSERT_TRUE(result);
    EXPECT_NE(result, request);
    EXPECT_EQ((*result->arguments())["mark"], Value("first"));
    EXPECT_EQ(result->uniqueID(), "u");
    EXPECT_FALSE(result->completed());
    EXPECT_TRUE(request->completed());
    EXPECT_EQ(request->uniqueID(), "u");
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(transport->sentTypes(),
              (std::vector<std::int32_t>{OpEncodeVideo, OpProgressAndCompletion, OpProgressAndCompletion}));
    EXPECT_EQ(transport->sent()[1]->uniqueID(), "u");
}

TEST_F(Wait, PollsEveryHalfSecond) {
    transport->reply(accepted()).reply(state(0.1F)).reply(state(0.2F)).reply(state(0.3F, true));
    const auto start = clock.now();
    (void)wait();
    EXPECT_EQ(clock.now() - start, 1s);
}

// At the server's pace.

TEST_F(Wait, AtTheServersPaceItAsksAgainAtOnceAfterAHeldReply) {
    invocation->setPace(TransportInvocation::Pace::WithTheServer);
    transport->reply(accepted());
    for (int i = 0; i < 20; ++i) {
        transport->then([&](const R::Ref&) {
            clock.advanceBy(400ms);
            return std::make_shared<const Data>(state(0.25F)->convertToData());
        });
    }
    transport->reply(state(1.0F, true));
    const auto start = clock.now();
    (void)wait();
    EXPECT_EQ(clock.now() - start, 20 * 400ms);
    EXPECT_THAT(clock.sleeps(), IsEmpty());
}

TEST_F(Wait, AtTheServersPaceNewsIsFollowedByAShortSleep) {
    invocation->setPace(TransportInvocation::Pace::WithTheServer);
    transport->reply(accepted()).reply(state(0.1F)).reply(state(0.2F)).reply(state(0.3F)).reply(state(1.0F, true));
    const auto start = clock.now();
    (void)wait();
    EXPECT_EQ(clock.now() - start, 3 * 5ms);
}

TEST_F(Wait, AtTheServersPaceAServerThatHoldsNothingIsAskedLessAndLess) {
    invocation->setPace(TransportInvocation::Pace::WithTheServer);
    transport->reply(accepted());
    // Creeping, as a server does that works on something long.
    for (int i = 0; i < 10; ++i) {
        transport->reply(state(0.5F + 0.0001F * static_cast<float>(i)));
    }
    transport->reply(state(1.0F, true));
    const auto start = clock.now();
    (void)wait();
    EXPECT_EQ(clock.now() - start, 5ms + 10ms + 20ms + 40ms + 80ms + 160ms + 4 * 250ms);
}

TEST_F(Wait, AtTheServersPaceAStallEndsTheCallAfterTheSameTime) {
    invocation->setPace(TransportInvocation::Pace::WithTheServer);
    transport->reply(accepted());
    reportForEver(0.5F);
    transport->reply(R::cancelOperation("u"));
    const auto start = clock.now();
    const auto result = wait(60);
    ASSERT_TRUE(result && result->error());
    EXPECT_EQ(result->error()->code(), 201);
    EXPECT_GT(clock.now() - start, 60s);
    EXPECT_LT(clock.now() - start, 61s);
    EXPECT_EQ(count(OpCancelOperation), 1U);
}

TEST_F(Wait, TheObserverSeesEachPollButTheLast) {
    transport->reply(accepted()).reply(state(0.1F)).reply(state(0.2F)).reply(state(1.0F, true));
    (void)wait();
    EXPECT_EQ(observer->seen, (std::vector<float>{0.1F, 0.2F}));
    EXPECT_EQ(observer->last.lock(), request);
}

TEST_F(Wait, TheObserverSeesProgressBetweenZeroAndOne) {
    transport->reply(accepted())
        .reply(state(1.5F))
        .reply(state(-0.2F))
        .reply(state(std::nanf("")))
        .reply(state(1, true));
    (void)wait();
    EXPECT_EQ(observer->seen, (std::vector<float>{1.0F, 0.0F, 1.0F}));
}

TEST_F(Wait, WorksWithoutAnObserver) {
    request->setProgressDelegate(nullptr);
    transport->reply(accepted()).reply(state(0.1F)).reply(state(1, true));
    EXPECT_TRUE(wait());
}

// The first reply may already say how the work ended, because the server holds it for a moment. The state that counts
// is still the one that is polled.

TEST_F(Wait, AFirstReplyThatIsCompletedIsPolledOnce) {
    const auto first = accepted();
    first->setProgress(1.0F, true);
    transport->reply(first).reply(state(1.0F, true));
    const auto result = wait();
    EXPECT_TRUE(result && result != request && result->completed());
    EXPECT_EQ(count(OpProgressAndCompletion), 1U);
    EXPECT_THAT(observer->seen, IsEmpty());
}

TEST_F(Wait, AFirstReplyThatIsCompletedDoesNotOutlastAStateThatIsNot) {
    const auto first = accepted();
    first->setProgress(1.0F, true);
    transport->reply(first).reply(state(0.5F)).reply(state(1.0F, true));
    (void)wait();
    EXPECT_EQ(count(OpProgressAndCompletion), 2U);
    EXPECT_THAT(observer->seen, ElementsAre(0.5F));
}

TEST_F(Wait, AFirstReplyWithAnErrorIsPolledOnce) {
    const auto first = accepted();
    first->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 4));
    const auto failed = state(0.0F);
    failed->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 5));
    transport->reply(first).reply(failed);
    EXPECT_EQ(wait(), request);
    EXPECT_EQ(request->error()->code(), 5);
    EXPECT_EQ(count(OpProgressAndCompletion), 1U);
}

TEST_F(Wait, AFirstReplyThatIsCancelledIsPolledAndShownToTheObserverOnce) {
    const auto first = accepted();
    first->setCancelled(true);
    transport->reply(first).reply(state(0.25F));
    EXPECT_EQ(wait(), request);
    EXPECT_TRUE(request->cancelled());
    EXPECT_EQ(count(OpProgressAndCompletion), 1U);
    EXPECT_THAT(observer->seen, ElementsAre(0.25F));
    EXPECT_EQ(count(OpCancelOperation), 0U);
}

TEST_F(Wait, AServerErrorIsReturnedInTheRequest) {
    const auto failed = state(0.5F);
    failed->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 4));
    transport->reply(accepted()).reply(failed);
    EXPECT_EQ(wait(), request);
    EXPECT_EQ(request->error()->code(), 4);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(count(OpCancelOperation), 0U);
    EXPECT_TRUE(observer->seen.empty());
}

TEST_F(Wait, AnErrorTakesPrecedenceOverCompletion) {
    const auto failed = state(1.0F, true);
    failed->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 8));
    transport->reply(accepted()).reply(failed);
    EXPECT_EQ(wait(), request);
}

TEST_F(Wait, AnObserverThatReturnsFalseCausesOneCancelRequest) {
    observer->answer = [](float) { return false; };
    transport->reply(accepted()).reply(state(0.1F)).reply(std::make_shared<R>());
    EXPECT_EQ(wait(), request);
    EXPECT_TRUE(request->cancelled());
    EXPECT_EQ(request->error(), nullptr);
    EXPECT_EQ(count(OpCancelOperation), 1U);
    EXPECT_EQ(transport->sent().back()->uniqueID(), "u");
    EXPECT_EQ(error, nullptr);
}

TEST_F(Wait, AFailedCancelRequestStillCancelsHere) {
    observer->answer = [](float) { return false; };
    LogRecorder log;
    transport->reply(accepted()).reply(state(0.1F)).unreachable();
    EXPECT_EQ(wait(), request);
    EXPECT_TRUE(request->cancelled());
    EXPECT_THAT(log.whole(),
                ElementsAre(kLines.error(kCancelling, "Tried to cancel operation " + request->description() +
                                                          ", but couldn't. Ignoring")));
}

TEST_F(Wait, ACancelRequestThatEndsInAnErrorIsLoggedAndIgnored) {
    LogRecorder log;
    transport->fail("cause");
    request->setUniqueID("u");
    invocation->tryToCancelOperation(request, transport);
    EXPECT_TRUE(request->cancelled());
    EXPECT_THAT(log.whole(),
                ElementsAre(kLines.error(
                    kCancelling, "Attempting to cancel KRVOperationBase, \"Encode video\", id:u. File: /s -> /d, "
                                 "Type: Original failed with Unable to Cancel operation. Ignoring.")));
}

TEST_F(Wait, TheCancelReplyIsIgnored) {
    LogRecorder log;
    transport->replyBytes("rubbish");
    invocation->tryToCancelOperation(request, transport);
    EXPECT_TRUE(request->cancelled());
    EXPECT_THAT(log.whole(), IsEmpty());
}

TEST_F(Wait, ACancelRequestThatThrowsAnotherKindLeavesTheOperationUnchanged) {
    transport->then([](const auto&) -> std::shared_ptr<const Data> { throw std::runtime_error("own"); });
    EXPECT_THROW(invocation->tryToCancelOperation(request, transport), std::runtime_error);
    EXPECT_FALSE(request->cancelled());
}

TEST_F(Wait, AnOperationThatIsAlreadyCancelledEndsAtTheFirstPoll) {
    const auto cancelledReply = state(0.1F);
    cancelledReply->setCancelled(true);
    transport->reply(accepted()).reply(cancelledReply);
    EXPECT_EQ(wait(), request);
    EXPECT_EQ(observer->seen.size(), 1U);
    EXPECT_EQ(count(OpCancelOperation), 0U);
}

TEST_F(Wait, ConstantProgressTimesOutAfterMoreThanAMinute) {
    transport->reply(accepted());
    reportForEver(0.0F);
    const auto start = clock.now();
    EXPECT_EQ(wait(), request);
    EXPECT_EQ(clock.now() - start, 60s + 500ms);
    ASSERT_TRUE(request->error());
    EXPECT_EQ(request->error()->domain(), "TransportCheck");
    EXPECT_EQ(request->error()->code(), 201);
    EXPECT_EQ(*request->error()->userInfo(),
              (Dictionary{{NSLocalizedDescriptionKey,
                           "Unable to Encode video. Timed out while monitoring progress (at 60.50)"}}));
    EXPECT_TRUE(request->cancelled());
    EXPECT_EQ(count(OpCancelOperation), 1U);
    EXPECT_EQ(error, nullptr);
}

TEST_F(Wait, AFirstPollAtZeroDoesNotRestartTheStallClockButOneAtATenthDoes) {
    // The clock advances before both replies. Only a change of progress restarts the stall clock.
    const auto late = [&](float progress) {
        return [&, progress](const R::Ref&) {
            clock.advanceBy(2s);
            return std::make_shared<const Data>(state(progress)->convertToData());
        };
    };
    transport->reply(accepted()).then(late(0.0F));
    EXPECT_EQ(wait(1.0F), request);
    EXPECT_EQ(request->error()->code(), 201);

    request = R::encodeVideoOperation("/s", "/d");
    invocation = TransportInvocation::invocationWith(request, clock);
    transport = std::make_shared<ScriptedTransport>();
    transport->reply(accepted()).then(late(0.1F)).reply(state(1.0F, true));
    EXPECT_NE(wait(1.0F), request);
}

TEST_F(Wait, TheStallClockStartsWhenTheFirstReplyHasBeenCopied) {
    transport
        ->then([&](const R::Ref&) {
            clock.advanceBy(30s);
            return std::make_shared<const Data>(accepted()->convertToData());
        })
        .reply(state(0.0F))
        .reply(state(1.0F, true));
    EXPECT_NE(wait(1.0F), request);
    EXPECT_EQ(request->error(), nullptr);
}

TEST_F(Wait, ProgressThatStopsHalfwayTimesOut) {
    transport->reply(accepted()).reply(state(0.25F));
    reportForEver(0.5F, 10);
    EXPECT_EQ(wait(1.0F), request);
    EXPECT_EQ(count(OpProgressAndCompletion), 5U);
    EXPECT_EQ(request->error()->localizedDescription(),
              "Unable to Encode video. Timed out while monitoring progress (at 1.50)");
}

TEST_F(Wait, TheObserverIsCalledBeforeAStallIsNoticed) {
    transport->reply(accepted());
    reportForEver(0.0F, 10);
    EXPECT_EQ(wait(1.0F), request);
    EXPECT_EQ(request->error()->code(), 201);
    EXPECT_EQ(observer->seen.size(), count(OpProgressAndCompletion));
}

TEST_F(Wait, TheErrorOfAStallIsSetWhenTheCancelRequestIsSent) {
    std::shared_ptr<const Error> atCancel;
    transport->reply(accepted()).reply(state(0.0F)).reply(state(0.0F)).then([&](const R::Ref&) {
        atCancel = request->error();
        return nullptr;
    });
    EXPECT_EQ(wait(0.25F), request);
    EXPECT_EQ(count(OpCancelOperation), 1U);
    ASSERT_TRUE(atCancel);
    EXPECT_EQ(atCancel->code(), 201);
}

TEST_F(Wait, StallClockRestartsWhenProgressGoesBackwards) {
    transport->reply(accepted());
    for (int i = 0; i < 100; ++i) {
        transport->reply(state(i % 2 == 0 ? 0.5F : 0.4F));
    }
    transport->reply(state(1.0F, true));
    EXPECT_NE(wait(0.6F), request);
}

TEST_F(Wait, TheSmallestChangeRestartsTheStallClock) {
    transport->reply(accepted());
    float progress = 0.5F;
    for (int i = 0; i < 100; ++i) {
        progress = std::nextafter(progress, 1.0F);
        transport->reply(state(progress));
    }
    transport->reply(state(1.0F, true));
    EXPECT_NE(wait(0.6F), request);
}

TEST_F(Wait, TheStallClockUsesTheUnclampedNumber) {
    transport->reply(accepted());
    for (int i = 0; i < 20; ++i) {
        transport->reply(state(2.0F + static_cast<float>(i)));
    }
    transport->reply(state(1.0F, true));
    EXPECT_NE(wait(0.6F), request);
    EXPECT_EQ(observer->seen, std::vector<float>(20, 1.0F));
}

TEST_F(Wait, NotANumberIsAlwaysAChange) {
    transport->reply(accepted());
    reportForEver(std::nanf(""), 20);
    transport->reply(state(1.0F, true));
    EXPECT_NE(wait(0.6F), request);
}

TEST_F(Wait, ElapsingExactlyTheTimeoutStillWaits) {
    transport->reply(accepted()).reply(state(0)).reply(state(0)).reply(state(0));
    transport->reply(state(1.0F, true));
    EXPECT_NE(wait(1.0F), request);
}

TEST_F(Wait, ATimeoutOfZeroNeedsMeasurableTime) {
    transport->reply(accepted()).reply(state(0)).reply(state(0)).reply(std::make_shared<R>());
    EXPECT_EQ(wait(0.0F), request);
    // The first poll was at the same instant, the second half a second later.
    EXPECT_EQ(count(OpProgressAndCompletion), 2U);
    EXPECT_EQ(request->error()->code(), 201);
}

TEST_F(Wait, TheGivenTimeoutReplacesTheInvocationsOwn) {
    transport->reply(accepted()).reply(state(1, true));
    (void)wait(7.5F);
    EXPECT_EQ(invocation->progressTimeoutDuration(), 7.5F);
}

TEST_F(Wait, AMappedErrorOfTheFirstSendEndsTheCall) {
    transport->fail("cause");
    EXPECT_EQ(wait(), nullptr);
    EXPECT_EQ(error->domain(), "TransportInvocation");
    EXPECT_EQ(error->localizedDescription(), "Unable to Encode video");
    EXPECT_EQ(request->uniqueID(), std::nullopt);
}

TEST_F(Wait, AMappedErrorOfAPollEndsTheCallWithoutACancelRequest) {
    transport->reply(accepted()).reply(state(0.3F)).fail("cause");
    EXPECT_EQ(wait(), nullptr);
    EXPECT_EQ(error->localizedDescription(), "Unable to Progress / Completion");
    EXPECT_EQ(request->progress(), 0.3F);
    EXPECT_EQ(count(OpCancelOperation), 0U);
}

TEST_F(Wait, AMappedErrorIsDroppedWithoutAnOutParameter) {
    transport->fail("cause");
    EXPECT_EQ(invocation->invokeOverTransportGetProgressWaitToComplete(transport, nullptr, 60.0F), nullptr);
}

TEST_F(Wait, AnUnreachableServerThrowsFromTheSendAndFromAPoll) {
    transport->unreachable();
    EXPECT_THROW((void)wait(), Exception);
    transport->reply(accepted()).unreachable();
    EXPECT_THROW((void)wait(), Exception);
    EXPECT_EQ(error, nullptr);
}

TEST_F(Wait, AMissingReplyNamesTheRequest) {
    for (int polls = 0; polls < 2; ++polls) {
        if (polls == 1) {
            transport->reply(accepted());
        }
        transport->replyNothing();
        try {
            (void)wait();
            FAIL();
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), "TransportCheck");
            EXPECT_EQ(e.reason(), "Unable to Encode video, no response returned from server.");
        }
    }
}

TEST_F(Wait, TheObserversExceptionPropagates) {
    observer->answer = [](float) -> bool { throw std::runtime_error("own"); };
    transport->reply(accepted()).reply(state(0.1F));
    EXPECT_THROW((void)wait(), std::runtime_error);
    EXPECT_FALSE(request->cancelled());
}

TEST_F(Wait, CompletionIsLoggedAtInfoLevel) {
    LogRecorder log;
    transport->reply(accepted()).reply(state(1, true));
    (void)wait();
    EXPECT_THAT(log.whole(), ElementsAre(kLines.info(kWaiting, "Operation " + request->description() + " completed")));
}

}  // namespace
}  // namespace krv
