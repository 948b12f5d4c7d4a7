#include <algorithm>

#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {
namespace {

/// The largest 32-bit float below 1, because a record carries progress as a 32-bit float. 1 itself is reserved for
/// finish().
constexpr double kBelowOne = 1 - 0x1p-24;

}  // namespace

Progress::Progress(ProgressSink& sink, Clock clock)
    : sink_(sink)
    , clock_(std::move(clock))
    , reportedAt_(clock_()) {}

void Progress::beginPhase(double endsAt) noexcept {
    phaseStart_ = std::max(reached_, phaseStart_);
    phaseEnd_ = std::max(endsAt, phaseStart_);
    alive();
}

void Progress::reach(double fractionOfPhase) noexcept {
    if (fractionOfPhase > 0) {
        reached_ = std::max(reached_, phaseStart_ + std::min(fractionOfPhase, 1.0) * (phaseEnd_ - phaseStart_));
    }
    alive();
}

void Progress::alive() noexcept {
    const auto now = clock_();
    const auto waited = now - reportedAt_;
    const double change = reached_ - reported_;
    const bool visible = change >= kLargeChange || (change >= kVisibleChange && waited >= kShortestInterval);
    if (!visible && waited < kSignOfLife) {
        return;
    }
    report(std::min(reached_, kBelowOne));
    reportedAt_ = now;
}

void Progress::finish() noexcept {
    report(1);
}

void Progress::report(double value) noexcept {
    reported_ = std::max(reported_, value);
    sink_.progress(reported_);
}

}  // namespace krv::media
