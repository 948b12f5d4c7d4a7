#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

namespace krv::media {

/// Keeps the peaks of stereo sound below a ceiling, and leaves alone what is below it anyway.
///
/// It looks ahead: the gain falls evenly during the few milliseconds before a peak and is there when the peak
/// comes, so that nothing is clipped and nothing clicks; afterwards it recovers within half a second. Both
/// channels get the same gain, which keeps the sound in its place. As many samples come out as go in, in the
/// same places: the delay of looking ahead is made up for. One thread.
class Limiter {
public:
    using Sink = std::function<void(std::span<const float> left, std::span<const float> right)>;

    /// rate in Hz; ceiling: the largest absolute value that may come out, more than 0.
    Limiter(int rate, float ceiling);

    /// Both of the same length. What is no number counts as silence.
    void push(std::span<const float> left, std::span<const float> right, const Sink& sink);
    /// Gives out what is left.
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
    void give(const Sink& sink);

    const std::size_t ahead_;  // samples
    const double ceiling_;
    const double recovery_;          // the part of the way back to 1 that is made per sample
    std::int64_t taken_ = 0;         // samples that have gone in
    std::deque<Need> needs_;         // the smallest gains of the samples looked ahead to, smallest first
    double gain_ = 1;                // with recovery, before smoothing
    std::vector<double> smoothing_;  // the latest values of gain_
    std::size_t smoothingAt_ = 0;
    std::size_t reduced_ = 0;  // how many of them are not 1
    double smoothingSum_;
    std::vector<Sample> delay_;  // the samples that are inside, in a ring
    std::size_t delayAt_ = 0;
    std::vector<float> left_, right_;  // ready to be given out
};

}  // namespace krv::media
