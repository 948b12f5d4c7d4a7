// The handle: the four ways to take a result, and what becomes of the work without one.
#include <coroutine>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/Job.h>
#include <KRVQTProcessClient/Jobs/JobState.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>

namespace krv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A coroutine that starts at once and belongs to nobody, or to whoever keeps its handle.
struct Task {
    struct promise_type {
        Task get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

class Jobs : public testing::Test {
protected:
    Jobs() {
        state->onCancel([this] { ++cancelled; });
    }
    Job<std::string> job() { return Job<std::string>(state); }
    void succeed(const std::string& text) { state->end({.value = std::make_shared<const std::string>(text)}); }
    void fail() {
        state->end({.value = nullptr, .failure = Failure(Failure::Kind::Stalled, {.message = "It stalled."})});
    }
    void note(const Result<std::string>& result) { results.push_back(result ? *result : result.error().message()); }
    Task await() { note(co_await job()); }

    FakeClock clock;
    FakeRunLoop loop{clock};
    const RunLoop::Replacement replacement{loop};
    std::shared_ptr<JobState> state = std::make_shared<JobState>(ProgressCallback(), JobControl());
    int cancelled = 0;
    std::vector<std::string> results;
};

TEST_F(Jobs, ThenCallsWithTheResult) {
    auto handle = job();
    handle.then([this](const Result<std::string>& result) { note(result); });
    succeed("done");
    loop.runReady();
    EXPECT_THAT(results, ElementsAre("done"));
}

TEST_F(Jobs, ThenOnATemporaryReturnsTheHandle) {
    const auto handle = job().then([this](const Result<std::string>& result) { note(result); });
    EXPECT_EQ(cancelled, 0);
    fail();
    loop.runReady();
    EXPECT_THAT(results, ElementsAre("It stalled."));
}

TEST_F(Jobs, DestroyingTheHandleCancelsAndSilencesTheCallback) {
    (void)job().then([this](const Result<std::string>& result) { note(result); });
    EXPECT_EQ(cancelled, 1);
    succeed("too late");
    loop.runReady();
    EXPECT_THAT(results, IsEmpty());
}

TEST_F(Jobs, AssigningAnotherJobCancelsTheFirst) {
    auto handle = job();
    handle = Job<std::string>(std::make_shared<JobState>(ProgressCallback(), JobControl()));
    EXPECT_EQ(cancelled, 1);
}

TEST_F(Jobs, MovingTheHandleDoesNotCancel) {
    auto handle = job();
    const auto moved = std::move(handle);
    EXPECT_EQ(cancelled, 0);
    EXPECT_FALSE(moved.hasEnded());
}

TEST_F(Jobs, ADetachedJobGoesOnAndDelivers) {
    {
        auto handle = job();
        handle.then([this](const Result<std::string>& result) { note(result); });
        handle.detach();
    }
    EXPECT_EQ(cancelled, 0);
    succeed("done");
    loop.runReady();
    EXPECT_THAT(results, ElementsAre("done"));
}

TEST_F(Jobs, AFutureHasTheResultWithoutALoop) {
    auto future = job().future();
    EXPECT_EQ(cancelled, 0) << "a future of a temporary detaches the job";
    succeed("done");
    note(future.get());
    EXPECT_THAT(results, ElementsAre("done"));
}

TEST_F(Jobs, AFutureOfACancelledHandleIsNotBroken) {
    auto future = [this] {
        auto handle = job();
        return handle.future();
    }();
    EXPECT_EQ(cancelled, 1);
    fail();
    note(future.get());
    EXPECT_THAT(results, ElementsAre("It stalled."));
}

TEST_F(Jobs, ACoroutineIsResumedOnItsLoop) {
    await();
    EXPECT_EQ(cancelled, 0);
    succeed("done");
    EXPECT_THAT(results, IsEmpty());
    loop.runReady();
    EXPECT_THAT(results, ElementsAre("done"));
}

TEST_F(Jobs, ACoroutineMayAwaitAJobThatHasEnded) {
    succeed("done");
    await();
    loop.runReady();
    EXPECT_THAT(results, ElementsAre("done"));
}

TEST_F(Jobs, ACoroutineThatIsDestroyedWhileItWaitsCancelsAndIsNotResumed) {
    await().handle.destroy();
    EXPECT_EQ(cancelled, 1);
    succeed("too late");
    loop.runReady();
    EXPECT_THAT(results, IsEmpty());
}

TEST_F(Jobs, EachWayDeliversItsOwnCopy) {
    auto handle = job();
    auto future = handle.future();
    handle.then([this](const Result<std::string>& result) { note(result); });
    succeed("done");
    loop.runReady();
    note(future.get());
    EXPECT_THAT(results, ElementsAre("done", "done"));
}

}  // namespace
}  // namespace krv
