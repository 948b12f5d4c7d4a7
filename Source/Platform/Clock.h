#pragma once

#include <chrono>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Steady time and sleeping, so that tests can put their own time in place of the machine's.
///
/// Wall-clock changes never show here, and time that the machine spends suspended does not count.
class KRV_EXPORT Clock {
public:
    using Duration = std::chrono::steady_clock::duration;
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~Clock();
    [[nodiscard]] virtual TimePoint now() const = 0;
    /// Blocks the calling thread; its run loop does not turn.
    virtual void sleepFor(Duration duration) = 0;

    /// The machine's clock; lives as long as the process. Any thread.
    [[nodiscard]] static Clock& steady();
};

/// A number of seconds as the clock counts them. Negative and not-a-number give zero, and what is too large
/// gives the longest duration.
[[nodiscard]] KRV_EXPORT Clock::Duration durationFromSeconds(double seconds) noexcept;
[[nodiscard]] inline double secondsFromDuration(Clock::Duration d) noexcept {
    return std::chrono::duration<double>(d).count();
}

/// A time that far after another one; the latest time there is when the sum is out of range. The duration
/// must not be negative.
[[nodiscard]] constexpr Clock::TimePoint timePointAfter(Clock::TimePoint time, Clock::Duration duration) noexcept {
    return time > Clock::TimePoint::max() - duration ? Clock::TimePoint::max() : time + duration;
}

}  // namespace krv
