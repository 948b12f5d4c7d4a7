#pragma once

#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// A clock whose time stands still until it is told otherwise. Starts an hour after the epoch of the steady
/// clock, so that a test may look back as well. Any thread.
class FakeClock final : public Clock {
public:
    FakeClock();

    [[nodiscard]] TimePoint now() const override;
    /// Lets the time pass at once and records how long the sleep was to be. Negative durations pass no time.
    void sleepFor(Duration duration) override;

    void advanceBy(Duration duration);
    /// Moves to a time; does nothing when it has passed.
    void advanceTo(TimePoint time);

    /// All sleeps so far, in order.
    [[nodiscard]] std::vector<Duration> sleeps() const;

private:
    mutable Mutex mutex_;
    TimePoint now_ KRV_GUARDED_BY(mutex_){std::chrono::hours(1)};
    std::vector<Duration> sleeps_ KRV_GUARDED_BY(mutex_);
};

} // namespace krv
