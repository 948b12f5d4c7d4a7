#include <functional>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>

// The contract of every run loop: the main loop, the loop of another thread, and the fake.

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr Selector kOperation("doSomething:");
constexpr Selector kOtherOperation("doSomethingElse:");

enum class LoopKind { Main, Thread, Fake };

class RunLoopContract : public testing::TestWithParam<LoopKind> {
protected:
    using Body = std::function<void(RunLoop&, Clock&)>;

    /// Runs the body on the thread of the loop under test.
    static void onLoop(const Body& body) {
        switch (GetParam()) {
        case LoopKind::Main:
            ASSERT_TRUE(RunLoop::isMainThread());
            body(RunLoop::current(), Clock::steady());
            break;
        case LoopKind::Thread:
            std::thread([&] {
                EXPECT_FALSE(RunLoop::isMainThread());
                body(RunLoop::current(), Clock::steady());
            }).join();
            break;
        case LoopKind::Fake:
            FakeClock clock;
            FakeRunLoop loop(clock);
            body(loop, clock);
            break;
        }
    }

    /// Runs the loop until the condition holds. Fails the test after a minute.
    static void turnUntil(RunLoop& loop, Clock& clock, const std::function<bool()>& condition) {
        const auto limit = clock.now() + 60s;
        while (!condition()) {
            ASSERT_LT(clock.now(), limit) << "waited in vain";
            loop.runUntil(clock.now() + 10ms);
        }
    }

    static std::shared_ptr<const void> target() { return std::make_shared<int>(0); }
};

std::string kindName(const testing::TestParamInfo<LoopKind>& info) {
    switch (info.param) {
    case LoopKind::Main:
        return "Main";
    case LoopKind::Thread:
        return "Thread";
    case LoopKind::Fake:
        break;
    }
    return "Fake";
}

INSTANTIATE_TEST_SUITE_P(All, RunLoopContract, testing::Values(LoopKind::Main, LoopKind::Thread, LoopKind::Fake),
                         kindName);

TEST_P(RunLoopContract, ATimerRepeatsUntilItIsInvalidated) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int fired = 0;
        const auto timer = loop.scheduleTimer(1ms, [&] { ++fired; });
        EXPECT_TRUE(timer->isValid());
        turnUntil(loop, clock, [&] { return fired >= 3; });
        timer->invalidate();
        timer->invalidate();
        EXPECT_FALSE(timer->isValid());
        const int before = fired;
        loop.runUntil(clock.now() + 5ms);
        EXPECT_EQ(fired, before);
    });
}

TEST_P(RunLoopContract, ATimerDoesNotFireBeforeItsFirstInterval) {
    onLoop([](RunLoop& loop, Clock& clock) {
        const auto start = clock.now();
        Clock::TimePoint first;
        const auto timer = loop.scheduleTimer(3ms, [&] { first = first == Clock::TimePoint() ? clock.now() : first; });
        turnUntil(loop, clock, [&] { return first != Clock::TimePoint(); });
        timer->invalidate();
        EXPECT_GE(first, start + 3ms);
    });
}

TEST_P(RunLoopContract, TheLoopKeepsATimerWithoutOtherReferences) {
    onLoop([](RunLoop& loop, Clock& clock) {
        auto fired = std::make_shared<int>(0);
        std::weak_ptr<RunLoop::Timer> timer = loop.scheduleTimer(1ms, [fired] { ++*fired; });
        turnUntil(loop, clock, [&] { return *fired >= 2; });
        ASSERT_FALSE(timer.expired());
        timer.lock()->invalidate();
        EXPECT_TRUE(timer.expired());
        EXPECT_EQ(fired.use_count(), 1);
    });
}

TEST_P(RunLoopContract, ATimerMayInvalidateItselfInItsCallback) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int fired = 0;
        std::shared_ptr<RunLoop::Timer> timer;
        timer = loop.scheduleTimer(1ms, [&] {
            ++fired;
            timer->invalidate();
        });
        loop.runUntil(clock.now() + 10ms);
        turnUntil(loop, clock, [&] { return fired > 0; });
        loop.runUntil(clock.now() + 5ms);
        EXPECT_EQ(fired, 1);
    });
}

TEST_P(RunLoopContract, ATimerIsNotCalledAgainWhileItsCallbackRunsTheLoop) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int depth = 0;
        int deepest = 0;
        int fired = 0;
        const auto timer = loop.scheduleTimer(1ms, [&] {
            ++fired;
            deepest = std::max(deepest, ++depth);
            loop.runUntil(clock.now() + 4ms);
            --depth;
        });
        turnUntil(loop, clock, [&] { return fired >= 2; });
        timer->invalidate();
        EXPECT_EQ(deepest, 1);
    });
}

TEST_P(RunLoopContract, ABusyThreadSkipsMissedCalls) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int fired = 0;
        const auto timer = loop.scheduleTimer(2ms, [&] { ++fired; });
        clock.sleepFor(20ms);
        loop.runUntil(clock.now() - 1s);
        timer->invalidate();
        EXPECT_EQ(fired, 1);
    });
}

TEST_P(RunLoopContract, ATimerWithoutCallbackOnlyKeepsTheLoopWaiting) {
    onLoop([](RunLoop& loop, Clock& clock) {
        const auto timer = loop.scheduleTimer(durationFromSeconds(2147483647.0), nullptr);
        const auto quick = loop.scheduleTimer(1ms, nullptr);
        EXPECT_NO_THROW(loop.runUntil(clock.now() + 3ms));
        timer->invalidate();
        quick->invalidate();
    });
}

TEST_P(RunLoopContract, DelayedCallsRunOnceInTheOrderOfTheirTimes) {
    onLoop([](RunLoop& loop, Clock& clock) {
        std::vector<int> order;
        loop.performAfterDelay(4ms, target(), kOperation, [&] { order.push_back(3); });
        loop.performAfterDelay(2ms, target(), kOperation, [&] { order.push_back(2); });
        loop.performAfterDelay(0ms, target(), kOperation, [&] { order.push_back(1); });
        loop.performAfterDelay(Clock::Duration::max(), target(), kOperation, [&] { order.push_back(4); });
        clock.sleepFor(5ms);
        turnUntil(loop, clock, [&] { return order.size() == 3; });
        loop.runUntil(clock.now() + 2ms);
        EXPECT_THAT(order, ElementsAre(1, 2, 3));
    });
}

TEST_P(RunLoopContract, ADelayedCallNeedsATarget) {
    onLoop([](RunLoop& loop, Clock&) {
        EXPECT_THROW(loop.performAfterDelay(0ms, nullptr, kOperation, [] {}), Exception);
    });
}

TEST_P(RunLoopContract, ADelayedCallKeepsItsTargetAliveUntilItHasBeenMade) {
    onLoop([](RunLoop& loop, Clock& clock) {
        auto object = std::make_shared<int>(5);
        const std::weak_ptr<int> weak = object;
        bool aliveInCall = false;
        bool called = false;
        loop.performAfterDelay(1ms, std::move(object), kOperation, [&] {
            aliveInCall = !weak.expired();
            called = true;
        });
        EXPECT_FALSE(weak.expired());
        turnUntil(loop, clock, [&] { return called; });
        EXPECT_TRUE(aliveInCall);
        EXPECT_TRUE(weak.expired());
    });
}

TEST_P(RunLoopContract, CancellingRemovesOnlyCallsOfThatTargetAndOperation) {
    onLoop([](RunLoop& loop, Clock& clock) {
        const auto one = target();
        const auto other = target();
        std::vector<int> order;
        loop.performAfterDelay(1ms, one, kOperation, [&] { order.push_back(1); });
        loop.performAfterDelay(2ms, one, kOperation, [&] { order.push_back(2); });
        loop.performAfterDelay(1ms, one, kOtherOperation, [&] { order.push_back(3); });
        loop.performAfterDelay(2ms, other, kOperation, [&] { order.push_back(4); });
        loop.cancelPerform(one.get(), kOperation);
        loop.cancelPerform(one.get(), kOperation);
        turnUntil(loop, clock, [&] { return order.size() == 2; });
        loop.runUntil(clock.now() + 3ms);
        EXPECT_THAT(order, ElementsAre(3, 4));
    });
}

TEST_P(RunLoopContract, CancellingReleasesTheTarget) {
    onLoop([](RunLoop& loop, Clock&) {
        auto object = std::make_shared<int>(5);
        loop.performAfterDelay(1h, object, kOperation, [object] {});
        EXPECT_EQ(object.use_count(), 3);
        loop.cancelPerform(object.get(), kOperation);
        EXPECT_EQ(object.use_count(), 1);
    });
}

TEST_P(RunLoopContract, ATargetsDestructorMayCallTheLoop) {
    struct Restless {
        Restless(RunLoop& asked, int& counter)
            : loop(asked)
            , destroyed(counter) {}
        RunLoop& loop;
        int& destroyed;
        ~Restless() {
            loop.cancelPerform(this, kOperation);
            loop.perform([&d = destroyed] { ++d; });
        }
    };
    onLoop([](RunLoop& loop, Clock& clock) {
        int destroyed = 0;
        auto object = std::make_shared<Restless>(loop, destroyed);
        const void* address = object.get();
        loop.performAfterDelay(1h, std::move(object), kOperation, [] {});
        loop.cancelPerform(address, kOperation);
        turnUntil(loop, clock, [&] { return destroyed == 1; });
    });
}

TEST_P(RunLoopContract, CallsFromAnotherThreadRunInOrderOnTheLoopsThread) {
    onLoop([](RunLoop& loop, Clock& clock) {
        std::vector<int> order;
        std::thread::id thread;
        std::thread([&] {
            for (int i = 0; i < 50; ++i) {
                loop.perform([&, i] {
                    order.push_back(i);
                    thread = std::this_thread::get_id();
                });
            }
        }).join();
        EXPECT_TRUE(order.empty());
        turnUntil(loop, clock, [&] { return order.size() == 50; });
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
        EXPECT_EQ(thread, std::this_thread::get_id());
    });
}

TEST_P(RunLoopContract, RunningUntilAPastTimeRunsReadyCallsAndReturns) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int called = 0;
        loop.perform([&] { ++called; });
        loop.perform([&] { ++called; });
        loop.performAfterDelay(1h, target(), kOperation, [&] { called += 100; });
        loop.runUntil(clock.now() - 1s);
        EXPECT_EQ(called, 2);
        loop.runUntil(Clock::TimePoint::min());
        EXPECT_EQ(called, 2);
    });
}

TEST_P(RunLoopContract, ALoopWithNothingToDoStillWaitsUntilTheTime) {
    onLoop([](RunLoop& loop, Clock& clock) {
        const auto time = clock.now() + 5ms;
        loop.runUntil(time);
        EXPECT_GE(clock.now(), time);
    });
}

TEST_P(RunLoopContract, RunReturnsWhenItIsStopped) {
    onLoop([](RunLoop& loop, Clock&) {
        int called = 0;
        loop.performAfterDelay(1ms, target(), kOperation, [&] { ++called; });
        loop.performAfterDelay(2ms, target(), kOperation, [&] { loop.stop(); });
        loop.run();
        EXPECT_EQ(called, 1);
    });
}

TEST_P(RunLoopContract, StoppingBeforeRunMakesThatRunReturnAtOnce) {
    onLoop([](RunLoop& loop, Clock&) {
        bool called = false;
        loop.stop();
        loop.stop();
        loop.perform([&] { called = true; });
        loop.run();
        EXPECT_FALSE(called);
        loop.perform([&] { loop.stop(); });
        loop.run();
        EXPECT_TRUE(called);
    });
}

TEST_P(RunLoopContract, StopEndsTheInnermostRun) {
    onLoop([](RunLoop& loop, Clock&) {
        std::vector<int> order;
        loop.perform([&] {
            loop.perform([&] { loop.stop(); });
            loop.run();
            order.push_back(1);
            loop.perform([&] { loop.stop(); });
        });
        loop.run();
        order.push_back(2);
        EXPECT_THAT(order, ElementsAre(1, 2));
    });
}

TEST_P(RunLoopContract, RunUntilRethrowsACallbacksExceptionAndTheRestStaysPending) {
    onLoop([](RunLoop& loop, Clock& clock) {
        bool after = false;
        loop.perform([] { throw Exception("Tick", "failed"); });
        loop.perform([&] { after = true; });
        try {
            loop.runUntil(clock.now() + 1h);
            ADD_FAILURE() << "nothing was raised";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), "Tick");
        }
        EXPECT_FALSE(after);
        turnUntil(loop, clock, [&] { return after; });
    });
}

TEST_P(RunLoopContract, RunRethrowsACallbacksException) {
    onLoop([](RunLoop& loop, Clock&) {
        loop.perform([] { throw std::bad_alloc(); });
        EXPECT_THROW(loop.run(), std::bad_alloc);
    });
}

TEST_P(RunLoopContract, ATimerContinuesAfterItsCallbackHasThrown) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int fired = 0;
        const auto timer = loop.scheduleTimer(1ms, [&] {
            if (++fired == 1) {
                throw std::runtime_error("tick");
            }
        });
        EXPECT_THROW(loop.runUntil(clock.now() + 1h), std::runtime_error);
        turnUntil(loop, clock, [&] { return fired >= 2; });
        timer->invalidate();
    });
}

TEST_P(RunLoopContract, ANestedRunsExceptionPropagatesThroughTheOuterCallback) {
    onLoop([](RunLoop& loop, Clock& clock) {
        bool passed = false;
        loop.perform([&] {
            loop.perform([] { throw std::runtime_error("inner"); });
            try {
                loop.runUntil(clock.now() + 1h);
            } catch (const std::runtime_error&) {
                passed = true;
                throw;
            }
        });
        EXPECT_THROW(loop.runUntil(clock.now() + 1h), std::runtime_error);
        EXPECT_TRUE(passed);
    });
}

TEST_P(RunLoopContract, IsThreadSafe) {
    onLoop([](RunLoop& loop, Clock& clock) {
        int called = 0;  // used by the loop's thread only
        const auto ask = [&] {
            for (int i = 0; i < 100; ++i) {
                const auto object = target();
                loop.perform([&] { ++called; });
                loop.performAfterDelay(0ms, object, kOperation, [&] { ++called; });
                loop.performAfterDelay(1h, object, kOtherOperation, [&] { called = -1000000; });
                const auto timer = loop.scheduleTimer(1h, [] {});
                loop.cancelPerform(object.get(), kOtherOperation);
                timer->invalidate();
            }
        };
        std::thread first(ask);
        std::thread second(ask);
        if (GetParam() != LoopKind::Fake) {  // nothing advances virtual time while other threads call
            turnUntil(loop, clock, [&] { return called == 400; });
        }
        first.join();
        second.join();
        turnUntil(loop, clock, [&] { return called == 400; });
    });
}

}  // namespace
}  // namespace krv
