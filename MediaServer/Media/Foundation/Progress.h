#pragma once

#include <chrono>
#include <functional>

#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Turns positions and signs of life into the rising number that a ProgressSink receives.
///
/// The work is divided into phases, each a part of the range 0…1; reach() says how far the current one has
/// come and alive() that something was read, decoded or written at all. Between two visible changes the
/// number creeps by kCreepPerSecond as long as alive() or reach() keep coming; when they stop, nothing moves.
/// One thread.
class Progress {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr double kCreepPerSecond = 4e-6;
    static constexpr double kVisibleChange = 1e-3;
    static constexpr std::chrono::milliseconds kSignOfLife{100};

    explicit Progress(ProgressSink& sink, Clock clock = &std::chrono::steady_clock::now);

    /// The phase that follows ends at this fraction of the whole.
    void beginPhase(double endsAt) noexcept;
    /// How far the phase has come, in 0…1; less than before counts as a sign of life only.
    void reach(double fractionOfPhase) noexcept;
    void alive() noexcept;
    /// The work is complete: reports 1.
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
