#include <algorithm>
#include <utility>

#include <unistd.h>

#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>

namespace krv {

constinit const std::string_view kKRVProcInfoProcessName = "kKRVProcInfoProcessName";
constinit const std::string_view kKRVProcInfoProcessPID = "kKRVProcInfoProcessPID";

namespace {

/// Omitted from every list, even if requested by name.
constexpr std::string_view kNeverListed = "loginwindow";

constexpr LogSite site(std::string_view function) {
    return {"Source/Monitoring/KRVProcessMonitor", Selector(function)};
}

}  // namespace

KRVProcessMonitor::KRVProcessMonitor(const ProcessTable& processes)
    : processes_(processes) {
    KRV_LOG(kLogFlagInfo, site("init"), "Process monitor started");
}

KRVProcessMonitor::~KRVProcessMonitor() {
    KRV_LOG(kLogFlagInfo, site("dealloc"), "Process monitor deallocating");
}

Value KRVProcessMonitor::ourPID() {
    return std::int64_t{::getpid()};
}

bool KRVProcessMonitor::doesProcessExist(std::int32_t pid, std::string_view /*withName*/,
                                         const ProcessTable& processes) {
    return processes.process(pid).has_value();
}

std::vector<Dictionary> KRVProcessMonitor::processInformationForProcessesNamed(std::string_view name,
                                                                               const ProcessTable& processes) {
    std::vector<Dictionary> records;
    if (name == kNeverListed) {
        return records;
    }
    for (const ProcessInfo& process : processes.processes()) {
        if (process.name == name) {
            records.push_back(
                {{kKRVProcInfoProcessName, process.name}, {kKRVProcInfoProcessPID, std::int64_t{process.pid}}});
        }
    }
    return records;
}

bool KRVProcessMonitor::isProcessRunningNamed(std::string_view name, const ProcessTable& processes) {
    return !processInformationForProcessesNamed(name, processes).empty();
}

void KRVProcessMonitor::monitorPID(std::int32_t pid) {
    const auto isIn = [pid](const std::vector<std::int32_t>& pids) {
        return std::find(pids.begin(), pids.end(), pid) != pids.end();
    };
    if (isIn(pidsToMonitor())) {
        return;
    }
    KRV_LOG(kLogFlagInfo, site("monitorPID:"), "Client with PID {} registered", pid);
    pidsToMonitor_.with([&](std::vector<std::int32_t>& pids) {
        // Another thread may have added it since then.
        if (!isIn(pids)) {
            pids.push_back(pid);
        }
    });
}

bool KRVProcessMonitor::someMonitoredProcessesStillRunning() const {
    return !pidsToMonitor().empty();
}

bool KRVProcessMonitor::processWithPIDExists(std::int32_t pid) const {
    return processes_.process(pid).has_value();
}

void KRVProcessMonitor::pollAllPIDs() {
    for (const std::int32_t pid : pidsToMonitor()) {
        if (!processWithPIDExists(pid)) {
            KRV_LOG(kLogFlagInfo, site("pollAllPIDs"), "Process with PID {} has gone", pid);
            pidsToMonitor_.with([pid](std::vector<std::int32_t>& pids) { std::erase(pids, pid); });
        }
    }
}

std::vector<std::int32_t> KRVProcessMonitor::pidsToMonitor() const {
    return pidsToMonitor_.get();
}

void KRVProcessMonitor::setPidsToMonitor(std::vector<std::int32_t> pids) {
    pidsToMonitor_.set(std::move(pids));
}

}  // namespace krv
