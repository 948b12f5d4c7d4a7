#pragma once

#include <exception>
#include <thread>

#include <glib.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// A run loop over a GMainContext. One source of the context stands for all of the loop's calls; whatever
/// else is attached to the context (an application's widgets, D-Bus) is dispatched by the same turns.
class GLibRunLoop final : public ScheduledRunLoop {
public:
    enum class Kind { Main, Thread };

    explicit GLibRunLoop(Kind kind);
    ~GLibRunLoop() override;

    void runUntil(Clock::TimePoint time) override;
    void run() override;
    void stop() override;

    /// One dispatch of the loop's source. Lets nothing through to GLib's frames.
    void dispatch() noexcept;

    [[nodiscard]] GMainContext* context() const noexcept { return context_; }

private:
    class Turning;

    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;
    void keepException() noexcept;
    void raiseKeptException();
    [[nodiscard]] bool takeStopRequest();
    [[nodiscard]] bool isOwnThread() const;

    const Kind kind_;
    const std::thread::id thread_; // of a thread loop
    GMainContext* const context_;
    GSource* const source_;
    // Waking the context under this lock keeps a thread that sees the request, returns from run() and ends
    // from taking the context away under the one that asks.
    Mutex stopMutex_;
    bool stopRequested_ KRV_GUARDED_BY(stopMutex_) = false;
    // The loop's own thread only.
    int turning_ = 0;
    std::exception_ptr exception_;
};

} // namespace krv
