#include <cmath>
#include <thread>

#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {
namespace {

class SteadyClock final : public Clock {
public:
    [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }
    void sleepFor(Duration duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

Clock::~Clock() = default;

Clock& Clock::steady() {
    static auto* clock = new SteadyClock;
    return *clock;
}

Clock::Duration durationFromSeconds(double seconds) noexcept {
    if (!(seconds > 0.0)) {
        return Clock::Duration::zero();
    }
    const std::chrono::duration<double> duration(seconds);
    constexpr std::chrono::duration<double> longest = Clock::Duration::max();
    return duration >= longest ? Clock::Duration::max() : std::chrono::duration_cast<Clock::Duration>(duration);
}

}  // namespace krv
