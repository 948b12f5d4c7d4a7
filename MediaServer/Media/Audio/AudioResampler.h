#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Converts decoded audio of any format, even one that changes, into frames of one format and size, in sync with the
/// movie's time.
///
/// Output sample n belongs to the time n / rate. A late start or a gap is filled with silence; overlapping audio is
/// cut. Deviations that are too small to matter are not corrected, so that rounded timestamps make no clicks, but they
/// never add up. Not thread-safe.
class AudioResampler {
public:
    using Sink = std::function<void(FramePtr)>;
    /// Returns the mixing matrix for an input layout: one row per output channel with the factors of all input
    /// channels, one row after another.
    using Matrix = std::function<std::vector<double>(const AVChannelLayout& in)>;

    /// The output format.
    struct Format {
        AVSampleFormat samples;
        int rate;
        AVChannelLayout layout;  ///< borrowed: its custom map, if any, must outlive the resampler
        int frameSize;           ///< 0: any

        /// The input format of an open encoder, which must outlive the resampler.
        Format(const AVCodecContext& encoder)  // NOLINT(google-explicit-constructor): an encoder is its format
            : Format(encoder.sample_fmt, encoder.sample_rate, encoder.ch_layout, encoder.frame_size) {}
        Format(AVSampleFormat sampleFormat, int sampleRate, const AVChannelLayout& channels, int samplesPerFrame)
            : samples(sampleFormat)
            , rate(sampleRate)
            , layout(channels)
            , frameSize(samplesPerFrame) {}
    };

    /// timeBase: unit of the input frames' times. end: no silence is inserted after this time, in units of timeBase.
    /// matrix: how channels are mixed; by default as FFmpeg does it.
    AudioResampler(const Format& format, AVRational timeBase, std::int64_t end, Matrix matrix = {});

    void push(const AVFrame& frame, const Sink& sink);
    /// Drops everything from this output sample on.
    void cutAt(std::int64_t sample) { cut_ = sample; }
    /// Ends the current audio and adds silence up to this output sample. The next frame begins other audio, which is
    /// placed exactly at its time.
    void fillTo(std::int64_t sample, const Sink& sink);
    /// Delivers the remaining samples. The last frame may be shorter than the others.
    void finish(const Sink& sink);

private:
    void configure(const AVFrame& frame, const Sink& sink);
    void align(const AVFrame& frame, const Sink& sink);
    void addSilence(std::int64_t samples, const Sink& sink);
    void convert(const std::uint8_t* const* data, int samples, const Sink& sink);
    void store(std::uint8_t** data, int samples, const Sink& sink);
    void deliver(int samples, const Sink& sink);
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
    std::int64_t stored_ = 0;     // samples written to the queue so far
    std::int64_t delivered_ = 0;  // samples delivered from it
    bool fresh_ = true;           // no sample of the current audio is stored yet
    std::int64_t cut_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t toDrop_ = 0;  // samples of the source that overlap earlier ones
};

}  // namespace krv::media
