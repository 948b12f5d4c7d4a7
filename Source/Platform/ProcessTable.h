#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// What is known of one process.
struct ProcessInfo {
    pid_t pid = 0;
    /// The name of its executable file, in full. For a process whose executable cannot be read (another
    /// user's), the kernel's own name for it, which is cut at 15 bytes.
    std::string name;
    /// Its real user.
    uid_t user = 0;
    /// When it started, in clock ticks since boot: together with the pid this names one process for ever.
    std::uint64_t startTime = 0;
};

/// The processes of this machine. A zombie does not count as a process. Any thread; nothing is cached.
class KRV_EXPORT ProcessTable {
public:
    virtual ~ProcessTable();
    [[nodiscard]] virtual std::optional<ProcessInfo> process(pid_t pid) const = 0;
    /// All processes in ascending order of pid; those that end while the list is read may be missing.
    [[nodiscard]] virtual std::vector<ProcessInfo> processes() const = 0;

    /// The machine's table. Lives as long as the process.
    [[nodiscard]] static ProcessTable& system();
    /// The part of it that belongs to this process's user: what other users run is none of an application's concern,
    /// and a program of theirs that bears a name of ours must not be taken for ours. Lives as long as the process.
    [[nodiscard]] static ProcessTable& ofThisUser();
};

}  // namespace krv
