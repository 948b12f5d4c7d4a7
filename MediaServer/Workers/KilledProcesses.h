#pragma once

#include <sys/types.h>

namespace krv::server {

/// Waits for a child process that has been killed, and reaps it. process: its id, or the negative id of a process group
/// of which all children have been killed. Sets status as waitpid does. Thread-safe.
///
/// A process that is blocked on a drive that does not respond may stay for as long as the drive does. After a moment
/// this returns false and leaves the process to itself; a later call, for any process, reaps it.
[[nodiscard]] bool reapKilled(pid_t process, int& status);

}  // namespace krv::server
