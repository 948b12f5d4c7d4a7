#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeProcessTable.h>

namespace krv {
namespace {

using Pids = std::vector<std::int32_t>;
using Lines = std::vector<std::string>;

constexpr LinesOf kLines("Source/Monitoring/KRVProcessMonitor");

class ProcessMonitor : public testing::Test {
protected:
    ProcessMonitor() {
        processes.add({10, "KRVQuicktimeProcess", 1000, 1});
        processes.add({11, "other", 1000, 2});
        processes.add({12, "KRVQuicktimeProcess", 1000, 3});
        processes.add({13, "loginwindow", 0, 4});
    }
    FakeProcessTable processes;
};

TEST_F(ProcessMonitor, OurPIDIsThisProcess) {
    EXPECT_EQ(KRVProcessMonitor::ourPID(), Value(std::int64_t{::getpid()}));
}

TEST_F(ProcessMonitor, AProcessExistsForAnyGivenName) {
    EXPECT_TRUE(KRVProcessMonitor::doesProcessExist(11, "other", processes));
    EXPECT_TRUE(KRVProcessMonitor::doesProcessExist(11, "no match", processes));
    EXPECT_FALSE(KRVProcessMonitor::doesProcessExist(99, "other", processes));
}

TEST_F(ProcessMonitor, TwoInstancesGiveTwoRecordsInOrder) {
    const auto records = KRVProcessMonitor::processInformationForProcessesNamed("KRVQuicktimeProcess", processes);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0], (Dictionary{{"kKRVProcInfoProcessName", "KRVQuicktimeProcess"},
                                      {"kKRVProcInfoProcessPID", std::int64_t{10}}}));
    EXPECT_EQ(records[1][kKRVProcInfoProcessPID], Value(std::int64_t{12}));
}

TEST_F(ProcessMonitor, TheLoginWindowIsNeverListed) {
    EXPECT_TRUE(KRVProcessMonitor::processInformationForProcessesNamed("loginwindow", processes).empty());
    EXPECT_FALSE(KRVProcessMonitor::isProcessRunningNamed("loginwindow", processes));
}

TEST_F(ProcessMonitor, NamesAreComparedExactly) {
    EXPECT_TRUE(KRVProcessMonitor::isProcessRunningNamed("KRVQuicktimeProcess", processes));
    EXPECT_TRUE(KRVProcessMonitor::isProcessRunningNamed("other", processes));
    EXPECT_FALSE(KRVProcessMonitor::isProcessRunningNamed("krvquicktimeprocess", processes));
    EXPECT_FALSE(KRVProcessMonitor::isProcessRunningNamed("KRVQuicktime", processes));
}

TEST_F(ProcessMonitor, WatchesAnIdOnceAndLogsOnce) {
    KRVProcessMonitor monitor(processes);
    EXPECT_FALSE(monitor.someMonitoredProcessesStillRunning());
    LogRecorder log;
    monitor.monitorPID(10);
    monitor.monitorPID(10);
    EXPECT_EQ(monitor.pidsBeingMonitored(), Pids{10});
    EXPECT_EQ(log.whole(), Lines{kLines.info("monitorPID:", "Client with PID 10 registered")});
}

TEST_F(ProcessMonitor, PollingRemovesExitedProcesses) {
    KRVProcessMonitor monitor(processes);
    monitor.monitorPID(10);
    monitor.monitorPID(11);
    processes.remove(10);
    LogRecorder log;
    monitor.pollAllPIDs();
    EXPECT_EQ(log.whole(), Lines{kLines.info("pollAllPIDs", "Process with PID 10 has gone")});
    EXPECT_EQ(monitor.pidsToMonitor(), Pids{11});
    EXPECT_TRUE(monitor.someMonitoredProcessesStillRunning());
}

TEST_F(ProcessMonitor, PollingRemovesEveryExitedProcessInTheOrderOfTheList) {
    KRVProcessMonitor monitor(processes);
    for (const std::int32_t pid : {12, 10, 11}) {
        monitor.monitorPID(pid);
    }
    EXPECT_EQ(monitor.pidsBeingMonitored(), (Pids{12, 10, 11}));
    processes.remove(12);
    processes.remove(10);
    LogRecorder log;
    monitor.pollAllPIDs();
    EXPECT_EQ(log.whole(), (Lines{kLines.info("pollAllPIDs", "Process with PID 12 has gone"),
                                  kLines.info("pollAllPIDs", "Process with PID 10 has gone")}));
    EXPECT_EQ(monitor.pidsToMonitor(), Pids{11});
}

TEST_F(ProcessMonitor, ADeadIdStaysUntilAPoll) {
    KRVProcessMonitor monitor(processes);
    monitor.monitorPID(10);
    processes.remove(10);
    EXPECT_TRUE(monitor.someMonitoredProcessesStillRunning());
    EXPECT_FALSE(monitor.processWithPIDExists(10));
    monitor.pollAllPIDs();
    EXPECT_FALSE(monitor.someMonitoredProcessesStillRunning());
}

TEST_F(ProcessMonitor, ACopyDoesNotFollowTheList) {
    KRVProcessMonitor monitor(processes);
    monitor.setPidsToMonitor({10, 11});
    const auto snapshot = monitor.pidsBeingMonitored();
    monitor.setPidsToMonitor({});
    EXPECT_EQ(snapshot, (Pids{10, 11}));
}

TEST_F(ProcessMonitor, LogsCreationAndDestruction) {
    LogRecorder log;
    { const KRVProcessMonitor monitor(processes); }
    EXPECT_EQ(log.whole(), (Lines{kLines.info("init", "Process monitor started"),
                                  kLines.info("dealloc", "Process monitor deallocating")}));
}

}  // namespace
}  // namespace krv
