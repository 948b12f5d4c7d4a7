#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

namespace krv::media {

/// Keeps the peaks of stereo audio below a ceiling. Audio that stays below it is not changed.
///
/// It looks ahead. The gain falls evenly during the few milliseconds before a peak and reaches its minimum at the peak.
/// Therefore nothing is clipped and nothing clicks. Afterwards it recovers within half a second. Both channels get the
/// same gain, which preserves the stereo image. The output has as many samples as the input, in the same places: the
/// delay of the lookahead is compensated. Not thread-safe.
class Limiter {
public:
    using Sink = std::function<void(std::span<const float> left, std::span<const float> right)>;

    /// rate: in Hz. ceiling: the largest absolute value of the output, greater than 0.
    Limiter(int rate, float ceiling);

    /// Adds samples. Both spans must have the same length. NaN and infinities count as silence.
    void push(std::span<const float> left, std::span<const float> right, const Sink& sink);
    /// Delivers the remaining samples.
    void finish(const Sink& sink);

private:
    struct Sample {
        float left, right;
    };
    struct Need {
        std::int64_t index;
        double gain;
    };

    void take(Sample sample, double needed);
    void deliver(const Sink& sink);

    const std::size_t ahead_;  // samples
    const double ceiling_;
    const double recovery_;          // the part of the distance to 1 that is recovered per sample
    std::int64_t taken_ = 0;         // input samples so far
    std::deque<Need> needs_;         // the smallest gains within the lookahead, smallest first
    double gain_ = 1;                // with recovery, before smoothing
    std::vector<double> smoothing_;  // the latest values of gain_
    std::size_t smoothingAt_ = 0;
    std::size_t reduced_ = 0;  // how many of these are not 1
    double smoothingSum_;
    std::vector<Sample> delay_;  // ring buffer of the samples within the lookahead
    std::size_t delayAt_ = 0;
    std::vector<float> left_, right_;  // ready to be delivered
};

}  // namespace krv::media
