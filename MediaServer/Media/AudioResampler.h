#pragma once

#include <cstdint>
#include <functional>

#include <MediaServer/Media/AV.h>
#include <MediaServer/Media/AudioFormat.h>

namespace krv::media {

/// Turns decoded sound of any and even changing format into frames of one format and size, in step with the
/// movie's time.
///
/// Sample number n of what comes out belongs to the time n / rate. Where the source starts late or has a gap
/// silence is put in, where its sound overlaps it is cut; deviations too small to matter are left, so that
/// rounded times make no clicks, but they never add up. One thread.
class AudioResampler {
public:
    using Sink = std::function<void(FramePtr)>;

    /// encoder: open; its format, rate and frame size are what comes out. timeBase: unit of the incoming
    /// times. end: no silence is put in beyond this time, in units of timeBase.
    AudioResampler(const AVCodecContext& encoder, AVRational timeBase, std::int64_t end);

    void push(const AVFrame& frame, const Sink& sink);
    /// Gives out what is left, in a last frame that may be shorter.
    void finish(const Sink& sink);

private:
    void configure(const AVFrame& frame, const Sink& sink);
    void align(const AVFrame& frame, const Sink& sink);
    void addSilence(std::int64_t samples, const Sink& sink);
    void convert(const std::uint8_t* const* data, int samples, const Sink& sink);
    void store(std::uint8_t** data, int samples, const Sink& sink);
    void give(int samples, const Sink& sink);
    [[nodiscard]] FramePtr newSamples(int samples) const;

    const AVCodecContext& encoder_;
    const AVRational timeBase_;
    const std::int64_t end_;
    const int frameSize_;
    ResamplerPtr resampler_;
    int sourceFormat_ = -1;
    int sourceRate_ = 0;
    ChannelLayout sourceLayout_;
    AudioFifoPtr fifo_;
    std::int64_t stored_ = 0;  // samples that have gone into the queue so far
    std::int64_t given_ = 0;   // samples that have come out of it
    std::int64_t toDrop_ = 0;  // samples of the source that overlap what there is already
};

}  // namespace krv::media
