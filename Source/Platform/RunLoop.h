#pragma once

#include <functional>
#include <memory>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// The event loop of one thread: repeating timers, delayed calls and calls from other threads.
///
/// The main loop is the process's default loop: an application that turns a GTK, a Qt (on GLib) or a plain
/// GLib main loop turns it too; others call RunLoop::main().run(). Every other thread has a loop of its own,
/// made when it first asks for it.
///
/// What a call-back throws ends the turn of the loop and is raised from runUntil or run to whoever turns the
/// loop. On a main loop that the application turns itself nobody can catch it: it is logged at error level
/// there.
class KRV_EXPORT RunLoop {
public:
    using Callback = std::function<void()>;

    /// A repeating timer. Dropping the reference does not stop it; the loop keeps it until it is invalidated.
    class KRV_EXPORT Timer {
    public:
        virtual ~Timer();
        /// No call-back starts after this returns, when called on the loop's own thread; from another thread,
        /// one that has already begun may still be running. Calling it again does nothing.
        virtual void invalidate() = 0;
        [[nodiscard]] virtual bool isValid() const = 0;
    };

    virtual ~RunLoop();

    /// The loop of the main thread. Lives as long as the process. Any thread.
    [[nodiscard]] static RunLoop& main();
    /// The calling thread's loop: main() on the main thread, else one that lives as long as the thread.
    [[nodiscard]] static RunLoop& current();
    /// Puts another loop in place of main(), and of current() on the calling thread, for as long as it lives.
    /// For tests, which turn a loop with a time of its own. Neither loop is owned. These objects nest.
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

    /// Whether the calling thread is the one that the process started with.
    [[nodiscard]] static bool isMainThread();

    /// Calls back every interval (at least one millisecond), the first time one interval from now. Fires that
    /// a busy thread has missed are left out, and a timer is never entered again while its call-back runs. An
    /// empty call-back is allowed: it only gives the loop something to wait for. Any thread.
    virtual std::shared_ptr<Timer> scheduleTimer(Clock::Duration interval, Callback callback) = 0;

    /// Calls once, after the delay. The call is known by (target, operation): target is kept alive until the
    /// call has been made or cancelled, and must not be empty (Exception "NSInvalidArgumentException").
    /// Several calls of one target and operation may be pending. Any thread.
    virtual void performAfterDelay(Clock::Duration delay, std::shared_ptr<const void> target, Selector operation,
                                   Callback callback) = 0;

    /// Drops every pending delayed call of that target and operation on this loop. Any thread.
    virtual void cancelPerform(const void* target, Selector operation) = 0;

    /// Calls on this loop's thread as soon as it turns, in the order asked for; does not wait. Any thread.
    virtual void perform(Callback callback) = 0;

    /// Turns the loop until the time has come (a time that has passed: whatever is ready, without blocking).
    /// A loop that nothing has been asked of waits as well. The loop's own thread only (Exception
    /// "NSInternalInconsistencyException" on another one). Raises what a call-back threw.
    virtual void runUntil(Clock::TimePoint time) = 0;

    /// Turns the loop until stop() is called. The loop's own thread only (Exception
    /// "NSInternalInconsistencyException" on another one). Raises what a call-back threw.
    virtual void run() = 0;

    /// Makes the innermost run() return. Any thread. A stop() before run() makes that run() return at once;
    /// several before it returns count as one.
    virtual void stop() = 0;

protected:
    RunLoop() = default;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;
};

}  // namespace krv
