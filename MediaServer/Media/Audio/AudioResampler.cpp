#include <algorithm>
#include <array>
#include <utility>

#include <MediaServer/Media/Audio/AudioResampler.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// Frame size for encoders that accept any.
constexpr int kAnyFrameSize = 4096;

/// A deviation from the movie's time is corrected if it exceeds one second divided by this. That is less than the
/// duration of a video frame.
constexpr int kToleratedPart = 66;

/// If audio seems to overlap by more than this, its clock has jumped.
constexpr std::int64_t kLongestOverlapSeconds = 10;

}  // namespace

AudioResampler::AudioResampler(const Format& format, AVRational timeBase, std::int64_t end, Matrix matrix)
    : format_(format)
    , timeBase_(timeBase)
    , end_(av_rescale_q(end, timeBase, AVRational{1, format.rate}))
    , frameSize_(format.frameSize > 0 ? format.frameSize : kAnyFrameSize)
    , matrix_(std::move(matrix))
    , fifo_(notNull(av_audio_fifo_alloc(format.samples, format.layout.nb_channels, frameSize_ * 2))) {}

void AudioResampler::push(const AVFrame& frame, const Sink& sink) {
    if (frame.nb_samples <= 0 || frame.sample_rate <= 0 || frame.ch_layout.nb_channels <= 0) {
        return;
    }
    configure(frame, sink);
    align(frame, sink);
    convert(frame.extended_data, frame.nb_samples, sink);
}

void AudioResampler::configure(const AVFrame& frame, const Sink& sink) {
    if (resampler_ && frame.format == sourceFormat_ && frame.sample_rate == sourceRate_ &&
        av_channel_layout_compare(&frame.ch_layout, &sourceLayout_.get()) == 0) {
        return;
    }
    if (resampler_) {
        convert(nullptr, 0, sink);  // the tail of the audio before it
    }
    sourceFormat_ = frame.format;
    sourceRate_ = frame.sample_rate;
    sourceLayout_.assign(frame.ch_layout);

    ChannelLayout layout;
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        layout.assignDefault(frame.ch_layout.nb_channels);
    } else {
        layout.assign(frame.ch_layout);
    }
    SwrContext* resampler = nullptr;
    // The function takes non-const pointers but only copies both layouts.
    auto& out = const_cast<AVChannelLayout&>(format_.layout);
    auto& in = const_cast<AVChannelLayout&>(layout.get());
    int result = swr_alloc_set_opts2(&resampler, &out, format_.samples, format_.rate, &in,
                                     static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    resampler_.reset(resampler);
    if (result >= 0 && matrix_) {
        const auto factors = matrix_(layout.get());
        result = swr_set_matrix(resampler, factors.data(), layout.get().nb_channels);
    }
    if (result >= 0) {
        result = swr_init(resampler);
    }
    if (result < 0) {
        fail(FailureCause::UnconvertibleAudio, result, "converting the channels");
    }
}

void AudioResampler::align(const AVFrame& frame, const Sink& sink) {
    if (frame.pts == AV_NOPTS_VALUE) {
        return;
    }
    const int rate = format_.rate;
    const std::int64_t wanted = av_rescale_q(frame.pts, timeBase_, AVRational{1, rate});
    const std::int64_t next = stored_ + swr_get_delay(resampler_.get(), rate) - toDrop_;
    const std::int64_t gap = wanted - next;
    const bool first = std::exchange(fresh_, false);
    if (gap > (first ? 0 : rate / kToleratedPart) && wanted <= end_) {
        addSilence(gap, sink);
    } else if (gap < (first ? 0 : -rate / kToleratedPart) && (first || gap > -kLongestOverlapSeconds * rate)) {
        toDrop_ += -gap;
    }
}

void AudioResampler::addSilence(std::int64_t samples, const Sink& sink) {
    while (samples > 0) {
        const int part = static_cast<int>(std::min<std::int64_t>(samples, frameSize_));
        const FramePtr silence = newSamples(part);
        av_samples_set_silence(silence->extended_data, 0, part, format_.layout.nb_channels, format_.samples);
        const std::int64_t kept = std::exchange(toDrop_, 0);  // only samples of the source are dropped
        store(silence->extended_data, part, sink);
        toDrop_ = kept;
        samples -= part;
    }
}

void AudioResampler::convert(const std::uint8_t* const* data, int samples, const Sink& sink) {
    const int room = swr_get_out_samples(resampler_.get(), samples);
    if (room <= 0) {
        return;
    }
    const FramePtr out = newSamples(room);
    const int made = swr_convert(resampler_.get(), out->extended_data, room, const_cast<const std::uint8_t**>(data),
                                 samples);  // swr does not change the data
    if (made < 0) {
        fail(FailureCause::InternalError, made, "resampling audio");
    }
    store(out->extended_data, made, sink);
}

void AudioResampler::store(std::uint8_t** data, int samples, const Sink& sink) {
    const int dropped = static_cast<int>(std::min<std::int64_t>(toDrop_, samples));
    toDrop_ -= dropped;
    samples -= dropped;
    samples = static_cast<int>(std::clamp<std::int64_t>(cut_ - stored_, 0, samples));
    if (samples > 0) {
        const int channels = format_.layout.nb_channels;
        const bool planar = av_sample_fmt_is_planar(format_.samples) != 0;
        const int step = av_get_bytes_per_sample(format_.samples) * (planar ? 1 : channels);
        for (int plane = 0; plane < (planar ? channels : 1); ++plane) {
            data[plane] += static_cast<std::ptrdiff_t>(dropped) * step;
        }
        if (av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(data), samples) < samples) {
            throw std::bad_alloc();
        }
        stored_ += samples;
    }
    while (av_audio_fifo_size(fifo_.get()) >= frameSize_) {
        deliver(frameSize_, sink);
    }
}

void AudioResampler::deliver(int samples, const Sink& sink) {
    FramePtr frame = newSamples(samples);
    av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(frame->extended_data), samples);
    frame->pts = delivered_;
    delivered_ += samples;
    sink(std::move(frame));
}

void AudioResampler::fillTo(std::int64_t sample, const Sink& sink) {
    if (resampler_) {
        convert(nullptr, 0, sink);
    }
    resampler_.reset();
    toDrop_ = 0;
    fresh_ = true;
    addSilence(sample - stored_, sink);
}

void AudioResampler::finish(const Sink& sink) {
    if (resampler_) {
        convert(nullptr, 0, sink);
    }
    if (const int rest = av_audio_fifo_size(fifo_.get()); rest > 0) {
        deliver(rest, sink);
    }
}

FramePtr AudioResampler::newSamples(int samples) const {
    FramePtr frame = newFrame();
    frame->nb_samples = samples;
    frame->format = format_.samples;
    frame->sample_rate = format_.rate;
    if (av_channel_layout_copy(&frame->ch_layout, &format_.layout) < 0 || av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    return frame;
}

}  // namespace krv::media
