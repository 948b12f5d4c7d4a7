#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

Clock::~Clock() = default;

Clock::Duration durationFromSeconds(double seconds) noexcept {
    if (!(seconds > 0.0)) {
        return Clock::Duration::zero();
    }
    const std::chrono::duration<double> duration(seconds);
    constexpr std::chrono::duration<double> longest = Clock::Duration::max();
    return duration >= longest ? Clock::Duration::max() : std::chrono::duration_cast<Clock::Duration>(duration);
}

}  // namespace krv
