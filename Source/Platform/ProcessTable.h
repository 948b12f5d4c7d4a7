#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// One process.
struct ProcessInfo {
    pid_t pid = 0;
    /// The full name of its executable file. If the executable cannot be read (another user's process), the kernel's
    /// name of the process, which is at most 15 bytes long.
    std::string name;
    /// Its real user.
    uid_t user = 0;
    /// Start time in clock ticks since boot. Together with the pid it identifies one process until the next boot.
    std::uint64_t startTime = 0;
};

/// The processes of this machine, without zombies. Caches nothing. Thread-safe.
class KRV_EXPORT ProcessTable {
public:
    virtual ~ProcessTable();
    [[nodiscard]] virtual std::optional<ProcessInfo> process(pid_t pid) const = 0;
    /// Returns whether the process that had this pid and start time is known to have exited. Zombies have. False if the
    /// table cannot be read, for instance because this process is out of descriptors.
    [[nodiscard]] virtual bool hasExited(pid_t pid, std::uint64_t startTime) const = 0;
    /// Returns all processes in ascending order of pid. Processes that exit during the call may be missing.
    [[nodiscard]] virtual std::vector<ProcessInfo> processes() const = 0;

    /// Returns the machine's table. Never destroyed.
    [[nodiscard]] static ProcessTable& system();
    /// Returns the processes of this process's user only. Another user's program with the name of ours must not be
    /// mistaken for ours. Never destroyed.
    [[nodiscard]] static ProcessTable& ofThisUser();
};

/// The number of the pid namespace of the machine's first process, the same on every Linux machine.
inline constexpr std::uint64_t kFirstPidNamespace = 0xEFFFFFFC;

/// Returns the number of this process's pid namespace: the inode of /proc/self/ns/pid. Processes of namespaces with
/// different numbers cannot identify each other by pid. 0 if /proc cannot be read. Thread-safe.
[[nodiscard]] KRV_EXPORT std::uint64_t pidNamespace() noexcept;

}  // namespace krv
