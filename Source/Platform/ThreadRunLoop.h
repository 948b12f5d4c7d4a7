#pragma once

#include <condition_variable>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// The run loop of a thread other than the main one. It needs no descriptor, so any thread can have one at any time; a
/// GMainContext needs one, and GLib ends the process when there is none. Internal to the library.
class ThreadRunLoop final : public ScheduledRunLoop {
public:
    /// Creates the loop of the calling thread.
    ThreadRunLoop();
    ~ThreadRunLoop() override;

    void runUntil(Clock::TimePoint time) override;
    void run() override;
    void stop() override;

private:
    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;

    void requireOwnThread() const;
    [[nodiscard]] bool takeStopRequest();
    /// Blocks until a call is due or requested, stop() is called, or the time has come.
    void waitUntil(std::optional<Clock::TimePoint> time);

    const std::thread::id thread_ = std::this_thread::get_id();
    Mutex mutex_;
    std::condition_variable_any changed_;
    std::optional<Clock::TimePoint> due_ KRV_GUARDED_BY(mutex_);
    /// Whether stop() was called, which the next run() takes.
    bool stopRequested_ KRV_GUARDED_BY(mutex_) = false;
};

}  // namespace krv
