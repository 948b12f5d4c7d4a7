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

/// Queries local processes, and keeps a list of process ids to watch.
///
/// The static operations are thread-safe. An instance is for one thread at a time. It has no timer; its owner polls.
class KRV_EXPORT KRVProcessMonitor {
public:
    /// processes: the table to query; must outlive the monitor.
    explicit KRVProcessMonitor(const ProcessTable& processes = ProcessTable::system());
    ~KRVProcessMonitor();
    KRVProcessMonitor(const KRVProcessMonitor&) = delete;
    KRVProcessMonitor& operator=(const KRVProcessMonitor&) = delete;

    /// Returns this process's id as an integer.
    [[nodiscard]] static Value ourPID();
    /// Returns whether a process with that id exists and its name can be read. Ignores withName; to match a name, use
    /// processInformationForProcessesNamed.
    [[nodiscard]] static bool doesProcessExist(std::int32_t pid, std::string_view withName,
                                               const ProcessTable& processes = ProcessTable::system());
    /// Returns one dictionary with the two keys above per running process of exactly that name. Always empty for
    /// "loginwindow".
    [[nodiscard]] static std::vector<Dictionary>
    processInformationForProcessesNamed(std::string_view name, const ProcessTable& processes = ProcessTable::system());
    [[nodiscard]] static bool isProcessRunningNamed(std::string_view name,
                                                    const ProcessTable& processes = ProcessTable::system());

    /// Adds an id to the watch list. Does nothing if it is already there.
    void monitorPID(std::int32_t pid);
    /// Returns whether the watch list contains any id. Only pollAllPIDs queries the processes.
    [[nodiscard]] bool someMonitoredProcessesStillRunning() const;
    [[nodiscard]] bool processWithPIDExists(std::int32_t pid) const;
    /// Removes every id whose process has exited.
    void pollAllPIDs();
    /// Returns a copy of the watch list.
    [[nodiscard]] std::vector<std::int32_t> pidsBeingMonitored() const { return pidsToMonitor(); }
    [[nodiscard]] std::vector<std::int32_t> pidsToMonitor() const;
    void setPidsToMonitor(std::vector<std::int32_t> pids);

private:
    const ProcessTable& processes_;
    Guarded<std::vector<std::int32_t>> pidsToMonitor_;
};

}  // namespace krv
