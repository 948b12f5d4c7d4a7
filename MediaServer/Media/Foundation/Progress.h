#pragma once

#include <chrono>
#include <functional>

#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Turns positions and signs of life into the reports that a ProgressSink receives.
///
/// The work is divided into phases, each a part of the range 0…1. reach() reports how far the current phase has come.
/// alive() reports that something was read, decoded or written at all. As long as one of them keeps being called, the
/// sink receives a report every kSignOfLife, if need be the same number again. The server makes it creep; see
/// ShownProgress there. Not thread-safe.
class Progress {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr double kVisibleChange = 5e-3;
    /// A change that is reported even if the latest report is not older than kShortestInterval.
    static constexpr double kLargeChange = 5e-2;
    static constexpr std::chrono::milliseconds kShortestInterval{10};
    static constexpr std::chrono::milliseconds kSignOfLife{100};

    explicit Progress(ProgressSink& sink, Clock clock = &std::chrono::steady_clock::now);

    /// Begins the next phase, which ends at this fraction of the whole.
    void beginPhase(double endsAt) noexcept;
    /// Reports how far the phase has come, in 0…1. A value below an earlier one counts as a sign of life only.
    void reach(double fractionOfPhase) noexcept;
    /// Reports a sign of life.
    void alive() noexcept;
    /// Reports 1: the work is complete.
    void finish() noexcept;

private:
    void report(double value) noexcept;

    ProgressSink& sink_;
    Clock clock_;
    std::chrono::steady_clock::time_point reportedAt_;
    double reported_ = 0;
    double reached_ = 0;
    double phaseStart_ = 0;
    double phaseEnd_ = 1;
};

}  // namespace krv::media
