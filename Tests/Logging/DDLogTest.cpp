#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/DDLog.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

constexpr LogSite kPlain{"Source/Test", Selector("plain")};
constexpr LogSite kMasked{"Source/Test", Selector("masked"), kLoggingHTTPMessaging | kLoggingDebug};
constexpr LogSite kApplication{"Source/Test", Selector("application"), 0, kLogContextApplication};

TEST(Logging, IsSilentUnlessEnabled) {
    int lines = 0;
    DDLog::setSink([&](const LogMessage&) { ++lines; });
    KRV_LOG(kLogFlagError, kPlain, "x");
    qtClientLogLevel = 15;
    KRV_LOG(kLogFlagError, kPlain, "x");
    EXPECT_EQ(lines, 0);
    krv_loggingEnabled = true;
    KRV_LOG(kLogFlagError, kPlain, "x");
    EXPECT_EQ(lines, 1);
    krv_loggingEnabled = false;
    qtClientLogLevel = 0;
    DDLog::setSink({});
}

TEST(Logging, ALinePassesWhenItsFlagIsInTheLevelWord) {
    for (const LogFlag flag : {kLogFlagError, kLogFlagWarning, kLogFlagInfo, kLogFlagVerbose}) {
        for (std::uint32_t level = 0; level < 16; ++level) {
            LogRecorder log(level, 0);
            KRV_LOG(flag, kPlain, "line");
            EXPECT_EQ(log.lines().size(), (level & flag) != 0 ? 1U : 0U);
        }
    }
}

TEST(Logging, AMaskedLineNeedsEveryBitOfItsMask) {
    for (std::uint32_t mask = 0; mask < 8; ++mask) {
        LogRecorder log(15, mask);
        KRV_LOG(kLogFlagInfo, kMasked, "line");
        const bool both = (mask & kLoggingHTTPMessaging) != 0 && (mask & kLoggingDebug) != 0;
        EXPECT_EQ(log.lines().size(), both ? 1U : 0U) << mask;
    }
}

TEST(Logging, TheContextSelectsTheLevelWord) {
    LogRecorder log;
    qtClientLogLevel = 0;
    KRV_LOG(kLogFlagInfo, kPlain, "client");
    KRV_LOG(kLogFlagInfo, kApplication, "application {}", 7);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].text, "application 7");
    EXPECT_EQ(log.lines()[0].context, kLogContextApplication);
    EXPECT_EQ(log.lines()[0].level, applicationLogLevel);
    EXPECT_EQ(log.lines()[0].file, "Source/Test");
    EXPECT_EQ(log.lines()[0].function, "application");
}

TEST(Logging, FlagsAndContextsHaveTheNumbersThatSinksRelyOn) {
    LogRecorder log(15);
    KRV_LOG(kLogFlagError, kPlain, "line");
    KRV_LOG(kLogFlagWarning, kPlain, "line");
    KRV_LOG(kLogFlagInfo, kPlain, "line");
    KRV_LOG(kLogFlagVerbose, kApplication, "line");
    std::vector<std::pair<int, int>> numbers;
    for (const auto& line : log.lines()) {
        numbers.emplace_back(static_cast<int>(line.flag), static_cast<int>(line.context));
    }
    EXPECT_EQ(numbers, (std::vector<std::pair<int, int>>{{1, 8}, {2, 8}, {4, 8}, {8, 32}}));
}

TEST(Logging, WholeLinesShowFlagContextFileAndFunction) {
    LogRecorder log;
    constexpr LinesOf client("Source/Test");
    constexpr LinesOf application("Source/Test", "application");
    KRV_LOG(kLogFlagError, kPlain, "one");
    KRV_LOG(kLogFlagWarning, kApplication, "two");
    KRV_LOG(kLogFlagInfo, kMasked, "needs its mask");
    additionalApplicationLogLevel = kLoggingHTTPMessaging | kLoggingDebug;
    KRV_LOG(kLogFlagVerbose, kMasked, "three");
    EXPECT_EQ(log.whole(),
              (std::vector<std::string>{client.error("plain", "one"), application.warning("application", "two"),
                                        client.verbose("masked", "three")}));
    EXPECT_EQ(log.whole()[0], "error client Source/Test plain | one");
}

TEST(Logging, WholeLinesShowTheLevelWordOfAnotherContext) {
    LogRecorder log;
    DDLog::log({applicationLogLevel, kLogFlagInfo, kLogContextClient, "Source/Test", "plain", 1, "line"});
    EXPECT_EQ(log.whole(), (std::vector<std::string>{"info client Source/Test plain | line (level word 271)"}));
}

TEST(Logging, ArgumentsOfALineThatDoesNotPassAreNotEvaluated) {
    int evaluated = 0;
    KRV_LOG(kLogFlagInfo, kPlain, "{}", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

TEST(Logging, ASinkMayThrowAndLog) {
    LogRecorder log;
    int lines = 0;
    DDLog::setSink([&](const LogMessage&) {
        ++lines;
        KRV_LOG(kLogFlagInfo, kPlain, "from the sink");
        throw std::runtime_error("sink");
    });
    KRV_LOG(kLogFlagInfo, kPlain, "one");
    KRV_LOG(kLogFlagInfo, kPlain, "two");
    EXPECT_EQ(lines, 2);
}

/// A line that is logged while the sink is busy must not wait for it: who logs may hold a lock that the sink needs.
TEST(Logging, DoesNotWaitForASinkThatAnotherThreadIsIn) {
    const LogRecorder log;
    std::vector<std::string> texts;
    std::promise<void> inside;
    std::promise<void> logged;
    DDLog::setSink([&](const LogMessage& message) {
        texts.push_back(message.text);
        if (message.text == "one") {
            inside.set_value();
            logged.get_future().wait();
        }
    });
    std::thread slow([] { KRV_LOG(kLogFlagInfo, kPlain, "one"); });
    inside.get_future().wait();
    KRV_LOG(kLogFlagInfo, kPlain, "two");
    KRV_LOG(kLogFlagInfo, kPlain, "three");
    EXPECT_EQ(texts.size(), 1U);
    logged.set_value();
    slow.join();
    EXPECT_EQ(texts, (std::vector<std::string>{"one", "two", "three"}));
}

TEST(Logging, ReplacingTheSinkWaitsUntilTheOldOneHasReturned) {
    const LogRecorder log;
    std::promise<void> inside;
    std::atomic<bool> returned = false;
    DDLog::setSink([&](const LogMessage&) {
        inside.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        returned = true;
    });
    std::thread slow([] { KRV_LOG(kLogFlagInfo, kPlain, "one"); });
    inside.get_future().wait();
    DDLog::setSink([](const LogMessage&) {});
    EXPECT_TRUE(returned);
    slow.join();
}

TEST(Logging, ASinkMayReplaceItself) {
    const LogRecorder log;
    int second = 0;
    DDLog::setSink([&](const LogMessage&) { DDLog::setSink([&](const LogMessage&) { ++second; }); });
    KRV_LOG(kLogFlagInfo, kPlain, "one");
    KRV_LOG(kLogFlagInfo, kPlain, "two");
    EXPECT_EQ(second, 1);
}

}  // namespace
}  // namespace krv
