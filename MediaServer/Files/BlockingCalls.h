#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include <sys/types.h>

namespace krv::server {

/// Runs calls that may block for as long as a drive does not respond, such as opening a file on a network share. Each
/// runs on a thread of its own, which the caller can abandon.
///
/// Nothing can end a thread that is blocked in the kernel. An abandoned thread continues when its call returns at last,
/// destroys what the call owns, and ends. It never touches its caller, nor keeps the process from exiting with _exit().
/// The number of abandoned threads is limited, and for each drive separately, so that one drive that does not respond
/// does not use up the threads for the others. Starting a thread takes about 20 µs, so none are kept for later.
/// Thread-safe.
class BlockingCalls {
    struct Running;
    class Abandoned;

public:
    /// Reports of a call while it runs.
    class Report {
    public:
        /// Reports that the call advances. Returns whether anybody still waits for it.
        bool operator()() const;
        /// Makes the result final. Returns false if nobody waits any more. If it returns true, a cancellation comes too
        /// late: the caller waits until the call returns, though not for ever.
        [[nodiscard]] bool decide() const;
        /// Says that the call has removed everything that it had to; see Waiting::cleansUp.
        void cleanedUp() const;
        /// Says which drive the call accesses from now on; see MountTable. Returns false if it should not, because too
        /// many abandoned threads are blocked on that drive.
        [[nodiscard]] bool mayUse(dev_t drive) const;
        /// Sets the drive that the call accesses from now on, where it is not known before.
        void uses(dev_t drive) const { (void)mayUse(drive); }

    private:
        friend Running;
        explicit Report(Running& running)
            : running_(&running) {}
        Running* running_;
    };
    /// Must own everything it uses.
    using Call = std::function<void(const Report& report)>;

    enum class End {
        Returned,
        TimedOut,   ///< the call did not advance for too long; its thread has been abandoned
        Cancelled,  ///< its thread has been abandoned
        Refused,    ///< it was not run, because too many threads are abandoned
        NoThread,   ///< it was not run, because there is no thread or descriptor for it
    };

    /// How a call is waited for.
    struct Waiting {
        /// A descriptor that is readable when the caller no longer wants the result; -1 for none. Borrowed.
        int cancellation = -1;
        /// How long the call may take without a report; 0 for any time.
        std::chrono::milliseconds limit{0};
        /// How long to wait for the call once it has been cancelled.
        std::chrono::milliseconds afterCancellation{0};
        /// Whether the call may have something to remove even if it has been abandoned; see waitForCleanUp().
        bool cleansUp = false;
        /// Called on the caller's thread after reports. May be empty.
        std::function<void()> onReport{};
        /// Called once on the caller's thread if the call does not return promptly. May be empty.
        std::function<void()> onDelay{};
    };

    /// How many threads may be abandoned.
    struct Limits {
        /// Blocked on the same drive.
        std::size_t perDrive = 16;
        std::size_t all = 256;
    };

    BlockingCalls();
    explicit BlockingCalls(Limits limits);
    BlockingCalls(const BlockingCalls&) = delete;
    BlockingCalls& operator=(const BlockingCalls&) = delete;

    /// Runs the call and waits for it. After a cancellation, report() returns false, and the call should return. Throws
    /// what the call throws, unless its thread has been abandoned.
    [[nodiscard]] End run(Call call, const Waiting& waiting);

    /// Waits for the abandoned threads whose calls clean up, as long as they report that they advance. To be called
    /// before the process exits.
    void waitForCleanUp();

    /// Returns how many abandoned threads have not ended yet.
    [[nodiscard]] std::size_t abandoned() const;

private:
    /// Throws what the call threw.
    [[nodiscard]] static End returned(const Running& running);
    [[nodiscard]] static bool start(const std::shared_ptr<Running>& running);

    const std::size_t mostAbandoned_;
    /// The threads may outlive this object.
    const std::shared_ptr<Abandoned> abandoned_;
};

}  // namespace krv::server
