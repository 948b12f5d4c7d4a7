#include <algorithm>

#include <MediaServer/Media/Audio/AudioMixer.h>

namespace krv::media {

AudioMixer::AudioMixer(std::size_t tracks, std::int64_t mostHeld)
    : mostHeld_(mostHeld)
    , inputs_(tracks) {}

void AudioMixer::add(std::size_t track, std::span<const float> left, std::span<const float> right, const Sink& sink) {
    Input& input = inputs_[track];
    const auto samples = static_cast<std::int64_t>(left.size());
    const std::int64_t late = std::clamp<std::int64_t>(delivered_ - input.length, 0, samples);  // too late to be mixed
    const auto at = static_cast<std::size_t>(std::max<std::int64_t>(0, input.length - delivered_));
    const std::size_t needed = at + static_cast<std::size_t>(samples - late);
    if (left_.size() < needed) {
        left_.resize(needed);
        right_.resize(needed);
    }
    for (auto i = static_cast<std::size_t>(late); i < left.size(); ++i) {
        left_[at + i - static_cast<std::size_t>(late)] += left[i];
        right_[at + i - static_cast<std::size_t>(late)] += right[i];
    }
    input.length += samples;
    deliver(sink);
}

void AudioMixer::finish(std::size_t track, const Sink& sink) {
    inputs_[track].finished = true;
    deliver(sink);
}

void AudioMixer::deliver(const Sink& sink) {
    std::int64_t furthest = 0;
    for (const Input& input : inputs_) {
        furthest = std::max(furthest, input.length);
    }
    std::int64_t complete = furthest;
    for (const Input& input : inputs_) {
        if (!input.finished) {
            complete = std::min(complete, input.length);
        }
    }
    complete = std::max(complete, furthest - mostHeld_);
    const auto ready = static_cast<std::ptrdiff_t>(complete - delivered_);
    if (ready <= 0) {
        return;
    }
    const auto count = static_cast<std::size_t>(ready);
    sink(std::span(left_).first(count), std::span(right_).first(count));
    left_.erase(left_.begin(), left_.begin() + ready);
    right_.erase(right_.begin(), right_.begin() + ready);
    delivered_ = complete;
}

}  // namespace krv::media
