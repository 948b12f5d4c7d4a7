#include <algorithm>

#include <MediaServer/Operations/ShownProgress.h>

namespace krv::server {

void ShownProgress::report(double fraction, Duration sinceLastLife) noexcept {
    const double filled = base_ + (1.0 - base_) * std::clamp(fraction, 0.0, 1.0);
    creep(sinceLastLife);
    value_ = std::max(value_, std::min(filled, kMostReported));
}

void ShownProgress::creep(Duration life) noexcept {
    constexpr std::chrono::hours kTail{1};
    const double steady = life.count() * kCreepPerSecond;
    const double towardsTheEnd = (kAlmostDone - value_) * std::min(life / kTail, 1.0);
    value_ += std::max(std::min(steady, towardsTheEnd), 0.0);
}

void ShownProgress::advanceTo(double value) noexcept {
    value_ = std::max(value_, std::min(value, kAlmostDone));
}

}  // namespace krv::server
