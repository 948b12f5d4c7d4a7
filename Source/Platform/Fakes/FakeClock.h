#pragma once

#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// A clock whose time changes only when a test advances it. Starts an hour after the epoch of the steady clock, so that
/// a test may subtract from it. Thread-safe.
class FakeClock final : public Clock {
public:
    FakeClock();

    [[nodiscard]] TimePoint now() const override;
    /// Advances the time at once and records the requested duration. A negative duration does not change the time.
    void sleepFor(Duration duration) override;

    void advanceBy(Duration duration);
    /// Advances to a time; does nothing if it has passed.
    void advanceTo(TimePoint time);

    /// Returns the durations of all sleeps so far, in order.
    [[nodiscard]] std::vector<Duration> sleeps() const;

private:
    mutable Mutex mutex_;
    TimePoint now_ KRV_GUARDED_BY(mutex_){std::chrono::hours(1)};
    std::vector<Duration> sleeps_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv
