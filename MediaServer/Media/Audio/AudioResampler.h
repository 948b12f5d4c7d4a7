#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Foundation/AV.h>

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
    /// How loud each channel that comes in is in each that comes out: for every one of the latter the factors
    /// of all of the former, one row after another.
    using Matrix = std::function<std::vector<double>(const AVChannelLayout& in)>;

    /// What comes out.
    struct Format {
        AVSampleFormat samples;
        int rate;
        AVChannelLayout layout;  ///< borrowed: what it points to, if anything, outlives the resampler
        int frameSize;           ///< 0: any

        /// What an encoder takes. It is open, and outlives the resampler.
        Format(const AVCodecContext& encoder)  // NOLINT(google-explicit-constructor): an encoder is its format
            : Format(encoder.sample_fmt, encoder.sample_rate, encoder.ch_layout, encoder.frame_size) {}
        Format(AVSampleFormat sampleFormat, int sampleRate, const AVChannelLayout& channels, int samplesPerFrame)
            : samples(sampleFormat)
            , rate(sampleRate)
            , layout(channels)
            , frameSize(samplesPerFrame) {}
    };

    /// timeBase: unit of the incoming times. end: no silence is put in beyond this time, in units of
    /// timeBase. matrix: how channels are mixed; without it as FFmpeg does.
    AudioResampler(const Format& format, AVRational timeBase, std::int64_t end, Matrix matrix = {});

    void push(const AVFrame& frame, const Sink& sink);
    /// From now on nothing is kept that belongs to this sample number or later.
    void cutAt(std::int64_t sample) { cut_ = sample; }
    /// The sound so far ends: silence follows up to this sample number, and what is pushed next is another
    /// sound, of which every sample gets exactly to its time.
    void fillTo(std::int64_t sample, const Sink& sink);
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

    const Format format_;
    const AVRational timeBase_;
    const std::int64_t end_;
    const int frameSize_;
    const Matrix matrix_;
    ResamplerPtr resampler_;
    int sourceFormat_ = -1;
    int sourceRate_ = 0;
    ChannelLayout sourceLayout_;
    AudioFifoPtr fifo_;
    std::int64_t stored_ = 0;  // samples that have gone into the queue so far
    std::int64_t given_ = 0;   // samples that have come out of it
    bool fresh_ = true;        // nothing of this sound has been stored yet
    std::int64_t cut_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t toDrop_ = 0;  // samples of the source that overlap what there is already
};

}  // namespace krv::media
