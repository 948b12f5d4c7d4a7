// Sleep and wake over a real bus: a private bus daemon replaces the system bus, and a process on it replaces logind.
#include <csignal>
#include <thread>

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/PowerEvents.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "ChildProcess.h"
#include "PrivateBus.h"

namespace krv {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> seen;

/// Runs the main loop until that many notifications have been posted.
void turnUntilSeen(std::size_t count) {
    while (seen.size() < count) {
        RunLoop::main().runUntil(Clock::steady().now() + 10ms);
    }
}

/// The process listens from the first call until it exits, so one test covers everything.
TEST(PowerEvents, ArePostedOnTheMainThreadAsLogindSendsThem) {
    test::PrivateBus bus;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    for (const auto name : {kWorkspaceWillSleepNotification, kWorkspaceDidWakeNotification}) {
        (void)PowerEvents::notificationCenter().addObserver(name, [](const Notification& notification) {
            EXPECT_TRUE(RunLoop::isMainThread());
            EXPECT_EQ(notification.object, nullptr);
            seen.push_back(notification.name);
        });
    }
    test::MockLogind logind(bus);
    // Signals are lost until the subscription is active.
    while (seen.empty()) {
        logind.prepareForSleep(true);
        RunLoop::main().runUntil(Clock::steady().now() + 50ms);
    }
    const std::size_t count = seen.size();
    logind.prepareForSleep(false);
    turnUntilSeen(count + 1);
    EXPECT_EQ(seen.back(), "NSWorkspaceDidWakeNotification");
    logind.prepareForSleep(true);
    logind.prepareForSleep(false);
    turnUntilSeen(count + 3);
    EXPECT_EQ(seen[count + 1], "NSWorkspaceWillSleepNotification");
    EXPECT_EQ(seen[count + 2], "NSWorkspaceDidWakeNotification");

    // The bus exits. The process does not, and logs one line.
    LogRecorder log;
    bus.kill();
    while (log.lines().empty()) {
        RunLoop::main().runUntil(Clock::steady().now() + 10ms);
    }
    EXPECT_THAT(log.texts(), testing::ElementsAre(testing::HasSubstr("No sleep and wake events")));
    EXPECT_EQ(log.lines().front().flag, kLogFlagInfo);
    EXPECT_EQ(seen.size(), count + 3);
}

TEST(PowerEvents, LeaveBrokenPipesToTheApplication) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    std::signal(SIGPIPE, SIG_DFL);
    LogRecorder log;
    (void)PowerEvents::notificationCenter();
    while (log.lines().empty()) {  // until GIO has tried to connect
        RunLoop::main().runUntil(Clock::steady().now() + 10ms);
    }
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
}

TEST(PowerEvents, AreNeverPostedWithoutABus) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    LogRecorder log;
    (void)PowerEvents::notificationCenter();
    while (log.lines().empty()) {
        RunLoop::main().runUntil(Clock::steady().now() + 10ms);
    }
    EXPECT_THAT(log.texts(), testing::ElementsAre(testing::HasSubstr("No sleep and wake events")));
}

}  // namespace
}  // namespace krv
