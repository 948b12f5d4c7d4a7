#pragma once

#include <functional>
#include <memory>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// The event loop of one thread: repeating timers, delayed calls, and calls from other threads.
///
/// The main loop is the process's default GLib context. An application that runs a GTK, a Qt (on GLib) or a plain GLib
/// main loop runs it too; others call RunLoop::main().run(). Every other thread has its own loop, created on first use,
/// which needs no descriptor and is independent of the thread's GLib context.
///
/// If a callback throws, the loop's current iteration ends and runUntil or run rethrows the exception. On a main loop
/// that a toolkit runs nobody could catch it, so it is logged at error level instead.
class KRV_EXPORT RunLoop {
public:
    using Callback = std::function<void()>;

    /// A repeating timer. The loop keeps a reference to it until it is invalidated.
    class KRV_EXPORT Timer {
    public:
        virtual ~Timer();
        /// Stops the timer. When called on the loop's thread, no callback starts after this returns. When called on
        /// another thread, a callback may still be running. Repeated calls do nothing.
        virtual void invalidate() = 0;
        [[nodiscard]] virtual bool isValid() const = 0;
    };

    virtual ~RunLoop();

    /// Returns the main thread's loop. Never destroyed. Throws Exception "OutOfDescriptors" if this is the first use and
    /// no file descriptor is left for it. Thread-safe.
    [[nodiscard]] static RunLoop& main();
    /// Returns the calling thread's loop: main() on the main thread, else one that exists until the thread exits.
    [[nodiscard]] static RunLoop& current();
    /// Replaces main(), and current() on the calling thread, by another loop until this object is destroyed. For tests
    /// that run a loop in virtual time. Borrows the loop. Replacements nest.
    class KRV_EXPORT Replacement {
    public:
        explicit Replacement(RunLoop& loop);
        ~Replacement();
        Replacement(const Replacement&) = delete;
        Replacement& operator=(const Replacement&) = delete;

    private:
        RunLoop* const previousMain_;
        RunLoop* const previousCurrent_;
    };

    /// Returns whether the calling thread is the process's first.
    [[nodiscard]] static bool isMainThread();
    /// Returns whether the calling thread is inside a callback of a GLib context, for example of the main loop.
    [[nodiscard]] static bool isInCallback();

    /// Calls the callback every interval (at least one millisecond), first after one interval. Skips the calls that a
    /// busy thread has missed, and never calls a callback that is still running. An empty callback is allowed; it only
    /// gives the loop something to wait for. Thread-safe.
    virtual std::shared_ptr<Timer> scheduleTimer(Clock::Duration interval, Callback callback) = 0;

    /// Calls the callback once, after the delay. The pair (target, operation) identifies the call. Keeps a reference to
    /// target until the call has been made or cancelled. Several calls of one target and operation may be pending.
    /// Throws Exception "NSInvalidArgumentException" if target is empty. Thread-safe.
    virtual void performAfterDelay(Clock::Duration delay, std::shared_ptr<const void> target, Selector operation,
                                   Callback callback) = 0;

    /// Cancels every pending delayed call of that target and operation on this loop. Thread-safe.
    virtual void cancelPerform(const void* target, Selector operation) = 0;

    /// Queues a call for this loop's next iteration and returns at once. Calls run in the order of the requests.
    /// Thread-safe.
    virtual void perform(Callback callback) = 0;

    /// Runs the loop until the given time, even if nothing is pending. If the time has passed, runs what is ready and
    /// returns without blocking. Rethrows the exception of a callback. Throws Exception
    /// "NSInternalInconsistencyException" on a thread other than the loop's.
    virtual void runUntil(Clock::TimePoint time) = 0;

    /// Runs the loop until stop() is called. Rethrows the exception of a callback. Throws Exception
    /// "NSInternalInconsistencyException" on a thread other than the loop's.
    virtual void run() = 0;

    /// Makes the innermost run() return. A stop() before run() makes that run() return at once; several count as one.
    /// Thread-safe.
    virtual void stop() = 0;

protected:
    RunLoop() = default;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;
};

}  // namespace krv
