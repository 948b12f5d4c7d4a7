#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace krv::media {

/// Adds up stereo sound of several tracks that arrive in turns.
///
/// What comes out is as far along as the slowest track; but one that stays far behind (it has a long gap, or
/// its file stores it far from the others) is not waited for, so that memory stays bounded. One thread.
class AudioMixer {
public:
    using Sink = std::function<void(std::span<const float> left, std::span<const float> right)>;

    /// mostHeld: how many samples may wait for the slowest track.
    AudioMixer(std::size_t tracks, std::int64_t mostHeld);

    /// Adds sound to a track, directly after what that track has got so far. Both of the same length.
    void add(std::size_t track, std::span<const float> left, std::span<const float> right, const Sink& sink);
    /// Nothing more will come from this track.
    void finish(std::size_t track, const Sink& sink);

private:
    struct Input {
        std::int64_t length = 0;  // samples so far
        bool finished = false;
    };
    void give(const Sink& sink);

    const std::int64_t mostHeld_;
    std::vector<Input> inputs_;
    std::int64_t given_ = 0;           // samples that have come out
    std::vector<float> left_, right_;  // the sum from there on
};

}  // namespace krv::media
