#pragma once

#include <chrono>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Steady time and sleeping. Tests substitute a clock of their own.
///
/// Changes of the wall clock have no effect, and time during which the machine is suspended does not count.
class KRV_EXPORT Clock {
public:
    using Duration = std::chrono::steady_clock::duration;
    using TimePoint = std::chrono::steady_clock::time_point;

    virtual ~Clock();
    [[nodiscard]] virtual TimePoint now() const = 0;
    /// Blocks the calling thread, without running its run loop.
    virtual void sleepFor(Duration duration) = 0;

    /// Returns the machine's clock. Never destroyed. Thread-safe.
    [[nodiscard]] static Clock& steady();
};

/// Converts seconds to a duration. A negative number or NaN gives zero, a number that is too large the longest
/// duration.
[[nodiscard]] KRV_EXPORT Clock::Duration durationFromSeconds(double seconds) noexcept;
[[nodiscard]] inline double secondsFromDuration(Clock::Duration d) noexcept {
    return std::chrono::duration<double>(d).count();
}

/// Returns time plus duration, or the latest possible time if the sum is out of range. The duration must not be
/// negative.
[[nodiscard]] constexpr Clock::TimePoint timePointAfter(Clock::TimePoint time, Clock::Duration duration) noexcept {
    return time > Clock::TimePoint::max() - duration ? Clock::TimePoint::max() : time + duration;
}

}  // namespace krv
