#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv {

/// Keys of a process-information record.
KRV_EXPORT extern const std::string_view kKRVProcInfoProcessName;
KRV_EXPORT extern const std::string_view kKRVProcInfoProcessPID;

/// Answers questions about local processes, and keeps a list of process ids to watch.
///
/// The static operations hold no state and may be called from any thread. An instance is meant for one thread at a
/// time; it has no timer of its own, its owner polls.
class KRV_EXPORT KRVProcessMonitor {
public:
    /// processes: the table to look into; must outlive the monitor.
    explicit KRVProcessMonitor(const ProcessTable& processes = ProcessTable::system());
    ~KRVProcessMonitor();
    KRVProcessMonitor(const KRVProcessMonitor&) = delete;
    KRVProcessMonitor& operator=(const KRVProcessMonitor&) = delete;

    /// This process's id, as an integer.
    [[nodiscard]] static Value ourPID();
    /// Whether a process with that id exists and its name can be read. The name given is not consulted; to match a
    /// name, use processInformationForProcessesNamed.
    [[nodiscard]] static bool doesProcessExist(std::int32_t pid, std::string_view withName,
                                               const ProcessTable& processes = ProcessTable::system());
    /// One dictionary with the two keys above for each running process of exactly that name. Always empty for
    /// "loginwindow".
    [[nodiscard]] static std::vector<Dictionary>
    processInformationForProcessesNamed(std::string_view name, const ProcessTable& processes = ProcessTable::system());
    [[nodiscard]] static bool isProcessRunningNamed(std::string_view name,
                                                    const ProcessTable& processes = ProcessTable::system());

    /// Watches an id; nothing happens when it is watched already.
    void monitorPID(std::int32_t pid);
    /// Whether the watch list holds anything. Only pollAllPIDs looks at the processes.
    [[nodiscard]] bool someMonitoredProcessesStillRunning() const;
    [[nodiscard]] bool processWithPIDExists(std::int32_t pid) const;
    /// Drops every id whose process has gone.
    void pollAllPIDs();
    /// A copy of the watch list.
    [[nodiscard]] std::vector<std::int32_t> pidsBeingMonitored() const { return pidsToMonitor(); }
    [[nodiscard]] std::vector<std::int32_t> pidsToMonitor() const;
    void setPidsToMonitor(std::vector<std::int32_t> pids);

private:
    const ProcessTable& processes_;
    Guarded<std::vector<std::int32_t>> pidsToMonitor_;
};

}  // namespace krv
