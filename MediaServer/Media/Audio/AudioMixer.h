#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace krv::media {

/// Mixes the stereo audio of several tracks that arrive alternately.
///
/// The output is as far as the slowest track. The mixer does not wait for a track that stays far behind, because it has
/// a long gap or is stored far from the others. This bounds the memory. Not thread-safe.
class AudioMixer {
public:
    using Sink = std::function<void(std::span<const float> left, std::span<const float> right)>;

    /// mostHeld: how many samples are buffered at most while the mixer waits for the slowest track.
    AudioMixer(std::size_t tracks, std::int64_t mostHeld);

    /// Appends samples to a track. Both spans must have the same length.
    void add(std::size_t track, std::span<const float> left, std::span<const float> right, const Sink& sink);
    /// Ends a track.
    void finish(std::size_t track, const Sink& sink);

private:
    struct Input {
        std::int64_t length = 0;  // samples so far
        bool finished = false;
    };
    void deliver(const Sink& sink);

    const std::int64_t mostHeld_;
    std::vector<Input> inputs_;
    std::int64_t delivered_ = 0;       // samples delivered so far
    std::vector<float> left_, right_;  // the sum of the samples after those
};

}  // namespace krv::media
