#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// A program that was launched and left alone. It outlives the process that launched it and never becomes its child. So
/// the application gets no SIGCHLD from it, its own wait() calls never see it, and the system reaps it.
///
/// The exception is an application that asked to adopt orphans (a child subreaper, or process 1 of a pid namespace): the
/// system gives it the program, like every other orphan, and it must reap what it does not know.
///
/// Therefore its exit status is unknown, only that it has exited. A program can report why it failed on its standard
/// error, which can be a file.
class KRV_EXPORT Task {
public:
    struct Launch {
        /// Path of the program file.
        std::string executable;
        /// The program's arguments, without its name.
        std::vector<std::string> arguments;
        /// File to which standard error is appended. If it is empty or cannot be opened, standard error is discarded.
        std::string standardErrorFile;
    };

    virtual ~Task();

    /// Launches the program in a new session, in the root directory, with this process's environment. Its standard
    /// streams are /dev/null (see above), no other descriptor is open, no signal is blocked, and every signal has its
    /// default disposition.
    ///
    /// Blocks until the kernel has accepted or refused the program file: about 5 ms on two busy cores, whether this
    /// process uses 16 MiB or 1 GiB, because nothing of it is copied. Only the calling thread waits. This process gets no
    /// SIGCHLD, none of its handlers runs elsewhere, and its wait() finds no stranger unless it asks for children without
    /// an exit signal (__WALL, __WCLONE).
    /// Throws Exception "NSInvalidArgumentException" with the cause if the file cannot be executed (missing, no
    /// permission, wrong architecture...), and kTaskLaunchException if the process table or memory is exhausted.
    /// Thread-safe.
    [[nodiscard]] static std::shared_ptr<Task> launch(const Launch& what);

    [[nodiscard]] virtual pid_t processIdentifier() const = 0;
    /// Returns whether the program has not exited yet. Thread-safe.
    [[nodiscard]] virtual bool isRunning() const = 0;
};

inline constexpr std::string_view kTaskLaunchException = "NSTaskLaunchException";

}  // namespace krv
