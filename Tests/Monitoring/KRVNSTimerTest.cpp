#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Monitoring/KRVNSTimer.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

class CountingTimer final : public KRVNSTimer {
public:
    void krvNSTimerFired() override { ++ticks; }
    int ticks = 0;
};

class PlainTimer final : public KRVNSTimer {};

class Timer : public testing::Test {
protected:
    /// Records each call of the observer with the value of isMonitoring at that moment.
    void observe() {
        token = timer->addObserver([this](const KRVNSTimer& sender, std::string_view key, KRVNSTimer::Change change) {
            EXPECT_EQ(&sender, timer.get());
            EXPECT_EQ(key, "isMonitoring");
            seen.push_back(std::string(change == KRVNSTimer::Change::Before ? "before" : "after") +
                           (sender.isMonitoring() ? " yes" : " no"));
        });
    }

    FakeClock clock;
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    std::shared_ptr<CountingTimer> timer = std::make_shared<CountingTimer>();
    NotificationCenter::Token token;
    std::vector<std::string> seen;
};

using Announcements = std::vector<std::string>;

TEST_F(Timer, DoesNotTickBeforeItIsStarted) {
    loop.advanceBy(5s);
    EXPECT_FALSE(timer->isMonitoring());
    EXPECT_EQ(timer->ticks, 0);
}

TEST_F(Timer, TicksEverySecondStartingAfterASecond) {
    timer->startMonitorTimer();
    EXPECT_TRUE(timer->isMonitoring());
    loop.advanceBy(999ms);
    EXPECT_EQ(timer->ticks, 0);
    loop.advanceBy(1ms);
    EXPECT_EQ(timer->ticks, 1);
    loop.advanceBy(9s);
    EXPECT_EQ(timer->ticks, 10);
}

TEST_F(Timer, TicksOnTheLoopOfTheThreadThatStartsIt) {
    FakeRunLoop other(clock);
    std::latch replaced(1);
    std::latch mainIsBack(1);
    std::latch started(1);
    std::latch looked(1);
    std::thread thread([&] {
        const RunLoop::Replacement own(other);
        replaced.count_down();
        mainIsBack.wait();
        timer->startMonitorTimer();
        started.count_down();
        looked.wait();
    });
    replaced.wait();
    {
        const RunLoop::Replacement again(loop);
        mainIsBack.count_down();
        started.wait();
        EXPECT_EQ(other.pendingCount(), 1U);
        EXPECT_EQ(loop.pendingCount(), 0U);
    }
    looked.count_down();
    thread.join();
    timer->stopMonitorTimer();
}

TEST_F(Timer, StoppingStopsTheTicksAtOnce) {
    timer->startMonitorTimer();
    loop.advanceBy(1s);
    timer->stopMonitorTimer();
    EXPECT_FALSE(timer->isMonitoring());
    loop.advanceBy(5s);
    EXPECT_EQ(timer->ticks, 1);
}

TEST_F(Timer, StartingAgainReplacesTheTimer) {
    timer->startMonitorTimer();
    loop.advanceBy(500ms);
    timer->startMonitorTimer();
    EXPECT_EQ(loop.pendingCount(), 1U);
    loop.advanceBy(900ms);
    EXPECT_EQ(timer->ticks, 0);
    loop.advanceBy(100ms);
    EXPECT_EQ(timer->ticks, 1);
}

TEST_F(Timer, StoppingAStoppedTimerStillCallsObserversTwice) {
    observe();
    timer->stopMonitorTimer();
    EXPECT_EQ(seen, (Announcements{"before no", "after no"}));
}

TEST_F(Timer, StartingCallsObserversBeforeAndAfterStopping) {
    observe();
    timer->startMonitorTimer();
    EXPECT_EQ(seen, (Announcements{"before no", "before no", "after no", "after yes"}));
    seen.clear();
    timer->startMonitorTimer();
    EXPECT_EQ(seen, (Announcements{"before yes", "before yes", "after no", "after yes"}));
    seen.clear();
    timer->stopMonitorTimer();
    EXPECT_EQ(seen, (Announcements{"before yes", "after no"}));
}

TEST_F(Timer, ARemovedObserverIsNotCalled) {
    observe();
    timer->removeObserver(token);
    timer->startMonitorTimer();
    EXPECT_EQ(seen, Announcements{});
}

TEST_F(Timer, IsKeptByTheRunLoopWhileItTicks) {
    timer->startMonitorTimer();
    const std::weak_ptr<CountingTimer> weak = timer;
    timer.reset();
    ASSERT_FALSE(weak.expired());
    loop.advanceBy(1s);
    EXPECT_EQ(weak.lock()->ticks, 1);
    weak.lock()->stopMonitorTimer();
    EXPECT_TRUE(weak.expired());
}

TEST_F(Timer, AnObserverMayDropTheLastReference) {
    const std::weak_ptr<CountingTimer> weak = timer;
    int called = 0;
    const auto drop = [&](const KRVNSTimer&, std::string_view, KRVNSTimer::Change) { timer.reset(); };
    const auto count = [&](const KRVNSTimer& sender, std::string_view, KRVNSTimer::Change) {
        called += sender.isMonitoring() ? 100 : 1;
    };
    (void)timer->addObserver(drop);
    (void)timer->addObserver(count);
    timer->startMonitorTimer();
    EXPECT_EQ(called, 103) << "before, before and after the stop within, after";
    ASSERT_FALSE(weak.expired()) << "the run loop keeps it";
    weak.lock()->stopMonitorTimer();
    EXPECT_TRUE(weak.expired());
}

TEST_F(Timer, AnObserversExceptionIsNoConcernOfTheTimer) {
    (void)timer->addObserver([](const auto&, auto, auto) { throw 3; });
    EXPECT_NO_THROW(timer->startMonitorTimer());
    loop.advanceBy(2500ms);
    EXPECT_EQ(timer->ticks, 2);
    EXPECT_NO_THROW(timer->stopMonitorTimer());
    EXPECT_FALSE(timer->isMonitoring());
}

TEST_F(Timer, ATickDoesNothingByDefault) {
    const auto plain = std::make_shared<PlainTimer>();
    plain->startMonitorTimer();
    EXPECT_NO_THROW(loop.advanceBy(3s));
    plain->stopMonitorTimer();
}

TEST_F(Timer, MayStopItselfInATick) {
    class OneTick final : public KRVNSTimer {
    public:
        void krvNSTimerFired() override {
            ++ticks;
            stopMonitorTimer();
        }
        int ticks = 0;
    };
    const auto once = std::make_shared<OneTick>();
    once->startMonitorTimer();
    loop.advanceBy(5s);
    EXPECT_EQ(once->ticks, 1);
    EXPECT_FALSE(once->isMonitoring());
}

}  // namespace
}  // namespace krv
