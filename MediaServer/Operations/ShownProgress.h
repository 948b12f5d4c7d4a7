#pragma once

#include <chrono>

namespace krv::server {

/// The progress that clients see of one operation: it never decreases, and is 1 only after complete().
///
/// A client gives up when the number has not changed for a minute, so the number also shows whether work advances.
/// While an operation shows life that nobody can measure, it creeps; without life it does not change. Pure: the caller
/// passes the time in. Not thread-safe.
class ShownProgress {
public:
    using Duration = std::chrono::duration<double>;

    /// Creeping per second of life. Clients see a float, whose steps near 1 are thirty times smaller.
    static constexpr double kCreepPerSecond = 2e-6;
    /// A worker's report moves the number at most this far. The rest is for work that was not finished when it seemed
    /// to be: the output is still to be flushed, or the movie is longer than its header says.
    static constexpr double kMostReported = 0.99;
    /// The number stays below this until complete(). As a float it is still less than 1.
    static constexpr double kAlmostDone = 0.99999;

    [[nodiscard]] double value() const noexcept { return value_; }

    /// Starts the work: later reports fill the range between the present value and 1.
    void start() noexcept { base_ = value_; }

    /// Moves to what the worker reports, a fraction of its work in [0, 1], or creeps if that is not further.
    /// sinceLastLife: time since the last report.
    void report(double fraction, Duration sinceLastLife) noexcept;

    /// Creeps for that much life. Near the end the steps get smaller, so that the number never arrives.
    void creep(Duration life) noexcept;

    /// Moves to this value, if it is larger, at most to kAlmostDone.
    void advanceTo(double value) noexcept;

    void complete() noexcept { value_ = 1.0; }

private:
    double value_ = 0.0;
    double base_ = 0.0;
};

}  // namespace krv::server
