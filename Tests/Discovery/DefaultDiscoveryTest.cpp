// The process's shared instance. Its thread lives until the process exits, so each test has a process of its own.
#include <cstdlib>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>

namespace krv {
namespace {

class DefaultDiscovery : public testing::Test {
protected:
    DefaultDiscovery() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Ends the test's process, without the threads: with the status 0 if no expectation has failed.
    [[noreturn]] static void finish() { std::_Exit(HasFailure() ? 1 : 0); }
};

using DefaultDiscoveryDeathTest = DefaultDiscovery;

void isSharedUntilItIsDestroyed() {
    const auto first = HTTPServerDiscovery::defaultInstance();
    EXPECT_EQ(HTTPServerDiscovery::defaultInstance(), first);
    // Only warnings: the thread of the instance logs too, at another level.
    LogRecorder log(kLogFlagWarning);
    HTTPServerDiscovery::destroyDefaultInstance();
    HTTPServerDiscovery::destroyDefaultInstance();
    EXPECT_EQ(log.whole(),
              (std::vector<std::string>{LinesOf("Source/Client/HTTPServerDiscovery")
                                            .warning("destroyDefaultInstance", "Default discovery being destroyed")}));
    const auto second = HTTPServerDiscovery::defaultInstance();
    EXPECT_NE(second, first);
    EXPECT_NE(second->browser(), first->browser());
    EXPECT_NE(first->browser(), nullptr);
}

TEST_F(DefaultDiscoveryDeathTest, IsSharedUntilItIsDestroyedAndThenReplaced) {
    EXPECT_EXIT(
        {
            isSharedUntilItIsDestroyed();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

void isMadeOnceByManyThreads() {
    constexpr std::size_t kThreads = 8;
    std::vector<std::shared_ptr<HTTPServerDiscovery>> seen(kThreads);
    std::vector<std::thread> threads;
    for (auto& mine : seen) {
        threads.emplace_back([&mine] { mine = HTTPServerDiscovery::defaultInstance(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1U);
}

TEST_F(DefaultDiscoveryDeathTest, IsMadeOnceByManyThreads) {
    EXPECT_EXIT(
        {
            isMadeOnceByManyThreads();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

void isForgottenAtTheEndOfAnyInstance() {
    const auto first = HTTPServerDiscovery::defaultInstance();
    {
        FakeClock clock;
        FakeRunLoop loop(clock);
        HTTPServerDiscovery::Environment environment;
        environment.makeBrowser = [] { return std::make_shared<FakeServiceBrowser>(); };
        environment.currentLoop = [&]() -> RunLoop& { return loop; };
        environment.startThread = [](const std::function<void()>&) {};
        (void)HTTPServerDiscovery::make(environment);
    }
    EXPECT_NE(HTTPServerDiscovery::defaultInstance(), first);
}

TEST_F(DefaultDiscoveryDeathTest, IsForgottenAtTheEndOfAnyInstance) {
    EXPECT_EXIT(
        {
            isForgottenAtTheEndOfAnyInstance();
            finish();
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace krv
