#pragma once

#include <exception>
#include <thread>

#include <glib.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// A run loop over a GMainContext. One source of the context represents all of the loop's calls. Other sources of the
/// context (an application's widgets, D-Bus) are dispatched in the same iterations.
class GLibRunLoop final : public ScheduledRunLoop {
public:
    enum class Kind { Main, Thread };

    explicit GLibRunLoop(Kind kind);
    ~GLibRunLoop() override;

    void runUntil(Clock::TimePoint time) override;
    void run() override;
    void stop() override;

    /// Dispatches the loop's source once. No exception reaches GLib's frames.
    void dispatch() noexcept;

    [[nodiscard]] GMainContext* context() const noexcept { return context_; }

private:
    class Running;

    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;
    void keepException() noexcept;
    void rethrowKeptException();
    [[nodiscard]] bool takeStopRequest();
    [[nodiscard]] bool isOwnThread() const;

    const Kind kind_;
    const std::thread::id thread_;  // of a thread loop
    GMainContext* const context_;
    GSource* const source_;
    // stop() wakes the context under this lock. Otherwise the loop's thread could see the request, return from run()
    // and destroy the context while stop() still uses it.
    Mutex stopMutex_;
    bool stopRequested_ KRV_GUARDED_BY(stopMutex_) = false;
    // Used on the loop's own thread only.
    int nestedRuns_ = 0;
    std::exception_ptr exception_;
};

}  // namespace krv
