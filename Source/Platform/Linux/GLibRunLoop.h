#pragma once

#include <exception>

#include <glib.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// The main thread's run loop, over GLib's default context. One source of the context represents all of the loop's
/// calls. Other sources of the context (an application's widgets, D-Bus) are dispatched in the same iterations.
class GLibRunLoop final : public ScheduledRunLoop {
public:
    /// GLib creates the context if the application has not, and ends the process if there is no descriptor for it.
    GLibRunLoop();
    ~GLibRunLoop() override;

    void runUntil(Clock::TimePoint time) override;
    void run() override;
    void stop() override;

    /// Dispatches the loop's source once. No exception reaches GLib's frames.
    void dispatch() noexcept;

private:
    class Running;

    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;
    void keepException() noexcept;
    void rethrowKeptException();
    [[nodiscard]] bool takeStopRequest();

    GMainContext* const context_;
    GSource* const source_;
    Mutex stopMutex_;
    bool stopRequested_ KRV_GUARDED_BY(stopMutex_) = false;
    // Used on the loop's own thread only.
    int nestedRuns_ = 0;
    std::exception_ptr exception_;
};

}  // namespace krv
