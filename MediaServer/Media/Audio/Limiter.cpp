#include <algorithm>
#include <cmath>

#include <MediaServer/Media/Audio/Limiter.h>

// How the gain is computed. Each sample needs a certain gain: 1 below the ceiling, else ceiling / peak. The limiter
// takes the smallest of these over a window that reaches ahead_ samples into the future. This value falls at once and
// recovers slowly. The gain that is applied to a sample is the mean of the latest ahead_ + 1 of these values. The
// windows of all of them include the sample. So none of them is larger than the gain that the sample needs, and neither
// is their mean. Therefore the ceiling holds for certain and does not depend on tuning, while the mean makes the gain a
// ramp instead of a step.

namespace krv::media {
namespace {

constexpr int kAheadPart = 200;            // lookahead: one second divided by this
constexpr double kRecoverySeconds = 0.08;  // for 63 % of the distance
constexpr double kRecovered = 1e-3;        // a smaller reduction is inaudible

}  // namespace

Limiter::Limiter(int rate, float ceiling)
    : ahead_(static_cast<std::size_t>(std::max(1, rate / kAheadPart)))
    , ceiling_(static_cast<double>(ceiling))
    , recovery_(1 - std::exp(-1 / (kRecoverySeconds * std::max(rate, 1))))
    , smoothing_(ahead_ + 1, 1.0)
    , smoothingSum_(static_cast<double>(ahead_ + 1))
    , delay_(ahead_) {}

void Limiter::push(std::span<const float> left, std::span<const float> right, const Sink& sink) {
    for (std::size_t i = 0; i < left.size(); ++i) {
        const Sample sample{std::isfinite(left[i]) ? left[i] : 0, std::isfinite(right[i]) ? right[i] : 0};
        const double peak = static_cast<double>(std::max(std::abs(sample.left), std::abs(sample.right)));
        take(sample, peak > ceiling_ ? ceiling_ / peak : 1);
    }
    deliver(sink);
}

void Limiter::finish(const Sink& sink) {
    for (std::size_t i = 0; i < ahead_; ++i) {
        take({0, 0}, 1);
    }
    deliver(sink);
}

void Limiter::take(Sample sample, double needed) {
    while (!needs_.empty() && needs_.back().gain >= needed) {
        needs_.pop_back();
    }
    needs_.push_back({taken_, needed});
    if (needs_.front().index < taken_ - static_cast<std::int64_t>(ahead_)) {
        needs_.pop_front();
    }

    gain_ += (1 - gain_) * recovery_;
    if (1 - gain_ < kRecovered) {
        gain_ = 1;
    }
    gain_ = std::min(gain_, needs_.front().gain);

    double& oldest = smoothing_[smoothingAt_];
    smoothingAt_ = (smoothingAt_ + 1) % smoothing_.size();
    reduced_ += (gain_ < 1 ? 1U : 0U);
    reduced_ -= (oldest < 1 ? 1U : 0U);
    smoothingSum_ += gain_ - oldest;
    oldest = gain_;

    const Sample delayed = delay_[delayAt_];
    delay_[delayAt_] = sample;
    delayAt_ = (delayAt_ + 1) % delay_.size();
    if (taken_++ < static_cast<std::int64_t>(ahead_)) {
        return;
    }
    if (reduced_ == 0) {
        // The gain is exactly 1. Resetting the sum removes its accumulated rounding errors.
        smoothingSum_ = static_cast<double>(smoothing_.size());
        left_.push_back(delayed.left);
        right_.push_back(delayed.right);
        return;
    }
    const double gain = smoothingSum_ / static_cast<double>(smoothing_.size());
    const auto limited = [&](float value) {
        return static_cast<float>(std::clamp(static_cast<double>(value) * gain, -ceiling_, ceiling_));
    };
    left_.push_back(limited(delayed.left));
    right_.push_back(limited(delayed.right));
}

void Limiter::deliver(const Sink& sink) {
    if (!left_.empty()) {
        sink(left_, right_);
    }
    left_.clear();
    right_.clear();
}

}  // namespace krv::media
