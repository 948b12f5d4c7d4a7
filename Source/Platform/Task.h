#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// A program that was started and then left alone: it outlives the process that started it and never becomes a child
/// of it, so the application sees no SIGCHLD of ours, its own wait() calls meet no stranger, and a program that ends
/// is reaped by the system, not by us.
///
/// What follows from that: how it ended is not known, only that it has. A program that says why it fails says so on
/// its standard error, which can be a file.
class KRV_EXPORT Task {
public:
    struct Launch {
        /// Path of the program file.
        std::string executable;
        /// What follows the path in the program's argument list.
        std::vector<std::string> arguments;
        /// Standard error is appended to this file when one is named and can be opened, else thrown away.
        std::string standardErrorFile;
    };

    virtual ~Task();

    /// Starts the program: a session of its own, the root directory, this process's environment, standard streams on
    /// /dev/null (but see above), no other descriptor, no blocked signal and every disposition the default one.
    ///
    /// Blocks until the kernel has accepted or refused the program file, a few milliseconds. Raises Exception
    /// "NSInvalidArgumentException" with the cause when it cannot be executed (missing, no permission, wrong
    /// architecture...), and kTaskLaunchException when the process table or memory is exhausted. Any thread.
    [[nodiscard]] static std::shared_ptr<Task> launch(const Launch& what);

    [[nodiscard]] virtual pid_t processIdentifier() const = 0;
    /// Whether it has not ended yet. Any thread.
    [[nodiscard]] virtual bool isRunning() const = 0;
};

inline constexpr std::string_view kTaskLaunchException = "NSTaskLaunchException";

}  // namespace krv
