#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeProcessTable.h>

namespace krv {
namespace {

using Pids = std::vector<std::int32_t>;

TEST(ProcessMonitorOrder, AnIdIsLoggedBeforeItIsWatched) {
    const FakeProcessTable processes;
    KRVProcessMonitor monitor(processes);
    const LogRecorder enabled;
    std::optional<Pids> watched;
    DDLog::setSink([&](const LogMessage& /*message*/) { watched = monitor.pidsToMonitor(); });
    monitor.monitorPID(10);
    EXPECT_EQ(watched, Pids{});
    EXPECT_EQ(monitor.pidsToMonitor(), Pids{10});
}

}  // namespace
}  // namespace krv
