#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>

#include <algorithm>

namespace krv {

FakeClock::FakeClock() = default;

Clock::TimePoint FakeClock::now() const {
    const LockGuard lock(mutex_);
    return now_;
}

void FakeClock::sleepFor(Duration duration) {
    const LockGuard lock(mutex_);
    sleeps_.push_back(duration);
    now_ = timePointAfter(now_, std::max(duration, Duration::zero()));
}

void FakeClock::advanceBy(Duration duration) {
    const LockGuard lock(mutex_);
    now_ = timePointAfter(now_, std::max(duration, Duration::zero()));
}

void FakeClock::advanceTo(TimePoint time) {
    const LockGuard lock(mutex_);
    now_ = std::max(now_, time);
}

std::vector<Clock::Duration> FakeClock::sleeps() const {
    const LockGuard lock(mutex_);
    return sleeps_;
}

} // namespace krv
