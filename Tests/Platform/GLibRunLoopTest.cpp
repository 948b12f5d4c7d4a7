#include <future>
#include <thread>

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "NoDescriptors.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

/// Enables logging of errors and records their texts.
class ErrorLog {
public:
    ErrorLog() {
        krv_loggingEnabled = true;
        qtClientLogLevel = kLogFlagError;
        DDLog::setSink([this](const LogMessage& message) { texts_.push_back(message.text); });
    }
    ~ErrorLog() {
        DDLog::setSink(nullptr);
        qtClientLogLevel = 0;
        krv_loggingEnabled = false;
    }
    [[nodiscard]] const std::vector<std::string>& texts() const { return texts_; }

private:
    std::vector<std::string> texts_;
};

TEST(GLibRunLoop, TheMainThreadsLoopIsTheMainLoop) {
    ASSERT_TRUE(RunLoop::isMainThread());
    EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
}

TEST(GLibRunLoop, EveryOtherThreadHasItsOwnLoop) {
    RunLoop* first = nullptr;
    RunLoop* again = nullptr;
    std::thread([&] {
        first = &RunLoop::current();
        again = &RunLoop::current();
    }).join();
    EXPECT_EQ(first, again);
    EXPECT_NE(first, &RunLoop::main());
}

TEST(GLibRunLoop, AnApplicationsGLibLoopRunsTheMainLoop) {
    GMainLoop* application = g_main_loop_new(nullptr, FALSE);
    std::vector<int> order;
    RunLoop::main().perform([&] { order.push_back(1); });
    RunLoop::main().performAfterDelay(1ms, std::make_shared<int>(), Selector("later"), [&] {
        order.push_back(2);
        g_main_loop_quit(application);
    });
    g_main_loop_run(application);
    g_main_loop_unref(application);
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(GLibRunLoop, AnExceptionInAnApplicationsGLibLoopIsLoggedAtErrorLevel) {
    const ErrorLog log;
    GMainLoop* application = g_main_loop_new(nullptr, FALSE);
    RunLoop::main().perform([] { throw Exception("Tick", "the reason"); });
    RunLoop::main().perform([&] { g_main_loop_quit(application); });
    g_main_loop_run(application);
    g_main_loop_unref(application);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("the reason")));
}

TEST(GLibRunLoop, DispatchesOtherSourcesOfItsContext) {
    bool called = false;
    g_idle_add_once([](gpointer flag) { *static_cast<bool*>(flag) = true; }, &called);
    const auto limit = Clock::steady().now() + 60s;
    while (!called && Clock::steady().now() < limit) {
        RunLoop::main().runUntil(Clock::steady().now() + 1ms);
    }
    EXPECT_TRUE(called);
}

TEST(GLibRunLoop, AThreadsLoopNeedsNoDescriptor) {
    // The undefined-behaviour sanitizer needs one when it meets a class for the first time.
    std::thread([] { RunLoop::current().perform([] {}); }).join();
    std::thread([] {
        const test::NoDescriptors none;
        bool called = false;
        RunLoop::current().perform([&] { called = true; });
        RunLoop::current().runUntil(Clock::steady().now() + 1ms);
        EXPECT_TRUE(called);
    }).join();
}

TEST(GLibRunLoop, AThreadsLoopLeavesTheApplicationsContextAlone) {
    std::thread([] {
        GMainContext* const own = g_main_context_new();
        g_main_context_push_thread_default(own);
        GMainContext* inside = nullptr;
        RunLoop::current().perform([&] { inside = g_main_context_get_thread_default(); });
        RunLoop::current().runUntil(Clock::steady().now());
        EXPECT_EQ(inside, own);
        g_main_context_pop_thread_default(own);
        g_main_context_unref(own);
    }).join();
}

TEST(GLibRunLoop, CannotBeRunByAnotherThread) {
    std::thread([] {
        EXPECT_THROW(RunLoop::main().runUntil(Clock::steady().now()), Exception);
        EXPECT_THROW(RunLoop::main().run(), Exception);
    }).join();
}

TEST(GLibRunLoop, AnotherThreadCanStopIt) {
    std::promise<RunLoop*> loop;
    std::promise<std::thread::id> running;
    std::thread thread([&] {
        loop.set_value(&RunLoop::current());
        RunLoop::current().run();
    });
    RunLoop& its = *loop.get_future().get();
    its.perform([&] { running.set_value(std::this_thread::get_id()); });
    EXPECT_EQ(running.get_future().get(), thread.get_id());
    its.stop();
    thread.join();
}

TEST(GLibRunLoop, PendingCallsAreDroppedWhenTheThreadExits) {
    auto object = std::make_shared<int>(1);
    std::shared_ptr<RunLoop::Timer> timer;
    std::thread([&] {
        timer = RunLoop::current().scheduleTimer(1ms, [] {});
        RunLoop::current().performAfterDelay(1h, object, Selector("later"), [object] {});
    }).join();
    EXPECT_EQ(object.use_count(), 1);
    EXPECT_FALSE(timer->isValid());
    timer->invalidate();
}

TEST(GLibRunLoop, TheEndOfAThreadMayStillScheduleCallsOnItsLoop) {
    struct AtTheEndOfTheThread {
        std::function<void()> call;
        ~AtTheEndOfTheThread() { call(); }
    };
    std::shared_ptr<RunLoop::Timer> timer;
    std::thread([&] {
        // Destroyed after the thread's loop, which is created later.
        thread_local AtTheEndOfTheThread later{[&] { timer = RunLoop::current().scheduleTimer(1h, [] {}); }};
        (void)RunLoop::current();
    }).join();
    ASSERT_TRUE(timer);
    timer->invalidate();
}

TEST(GLibRunLoop, AReplacementReplacesTheMainAndTheCurrentLoop) {
    RunLoop& before = RunLoop::main();
    {
        FakeClock clock;
        FakeRunLoop fake(clock);
        const RunLoop::Replacement replacement(fake);
        EXPECT_EQ(&RunLoop::main(), &fake);
        EXPECT_EQ(&RunLoop::current(), &fake);
    }
    EXPECT_EQ(&RunLoop::main(), &before);
    EXPECT_EQ(&RunLoop::current(), &before);
}

TEST(FakeRunLoop, MakesEachCallAtExactlyItsTime) {
    FakeClock clock;
    FakeRunLoop loop(clock);
    const auto start = clock.now();
    std::vector<Clock::Duration> times;
    const auto record = [&] { times.push_back(clock.now() - start); };
    const auto timer = loop.scheduleTimer(2s, record);
    loop.performAfterDelay(5s, std::make_shared<int>(), Selector("later"), record);
    loop.advanceBy(6s);
    EXPECT_THAT(times, ElementsAre(2s, 4s, 5s, 6s));
    EXPECT_EQ(clock.now(), start + 6s);
}

TEST(FakeRunLoop, ReportsPendingCalls) {
    FakeClock clock;
    FakeRunLoop loop(clock);
    const auto object = std::make_shared<int>();
    EXPECT_EQ(loop.nextCall(), std::nullopt);
    loop.performAfterDelay(5s, object, Selector("later"), [] {});
    (void)loop.scheduleTimer(7s, nullptr);
    EXPECT_EQ(loop.pendingCount(), 2U);
    EXPECT_EQ(loop.pendingCount(object.get(), Selector("later")), 1U);
    EXPECT_EQ(loop.pendingCount(object.get(), Selector("now")), 0U);
    EXPECT_EQ(loop.nextCall(), clock.now() + 5s);
}

TEST(FakeRunLoop, RunningWithNothingToWaitForIsAnErrorOfTheTest) {
    FakeClock clock;
    FakeRunLoop loop(clock);
    EXPECT_THROW(loop.run(), std::logic_error);
}

TEST(FakeRunLoop, ReadyCallsRunWithoutAdvancingTheClock) {
    FakeClock clock;
    FakeRunLoop loop(clock);
    const auto start = clock.now();
    int called = 0;
    loop.perform([&] { loop.perform([&] { ++called; }); });
    loop.runReady();
    EXPECT_EQ(called, 1);
    EXPECT_EQ(clock.now(), start);
}

}  // namespace
}  // namespace krv
