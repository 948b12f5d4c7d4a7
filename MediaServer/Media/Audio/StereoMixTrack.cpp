#include <algorithm>
#include <cmath>

#include <MediaServer/Media/Audio/StereoMatrix.h>
#include <MediaServer/Media/Audio/StereoMixTrack.h>
#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

constexpr AVChannelLayout kStereo = AV_CHANNEL_LAYOUT_STEREO;

/// -1 dB of full scale. The margin keeps peaks below full scale when a lossy codec raises them.
constexpr float kCeiling = 0.891250938F;

/// How far a track may stay behind before the mixer stops waiting for it.
constexpr std::int64_t kMostHeldSeconds = 20;

/// Limited audio is dense, and the codec's errors are added to its peaks. Therefore it gets more bits than usual, and
/// the encoder must not substitute noise, because other noise may have higher peaks.
constexpr std::int64_t kAACBitRate = 256'000;

Settings stereoSettings(const Codec& codec) {
    Settings settings;
    settings.channels = 2;
    if (codec.id == AV_CODEC_ID_AAC) {
        settings.bitRate = kAACBitRate;
        settings.options = {{"aac_pns", "0"}};
    }
    return settings;
}

std::span<const float> channel(const AVFrame& frame, int index) {
    return {reinterpret_cast<const float*>(frame.extended_data[index]), static_cast<std::size_t>(frame.nb_samples)};
}

}  // namespace

StereoMixTrack::StereoMixTrack(const Source& source, const std::vector<const AVStream*>& from, const Codec& codec)
    : source_(source)
    , codec_(codec)
    , settings_(stereoSettings(codec)) {
    for (const AVStream* stream : from) {
        inputs_.push_back(std::make_unique<Input>(*stream));
    }
}

void StereoMixTrack::open(OutputFile& output) {
    const AVStream& first = inputs_.front()->from;
    encoder_.emplace(EncoderSession::Request{codec_, 0, settings_, hasHighResolution(first), true}, output,
                     [this](AVCodecContext& context) { prepare(context); });
    const int rate = encoder_->context().sample_rate;
    const AudioResampler::Format mixed(AV_SAMPLE_FMT_FLTP, rate, kStereo, 0);
    for (const auto& input : inputs_) {
        const AVRational unit = input->from.time_base;
        input->resampler.emplace(mixed, unit, av_rescale_q(source_.lastPlausibleTime(), kMicroseconds, unit),
                                 &stereoMatrix);
    }
    sum_.emplace(inputs_.size(), kMostHeldSeconds * rate);
    limiter_.emplace(rate, kCeiling);
    packing_.emplace(encoder_->context(), AVRational{1, rate}, 0);
    copyTrackMetadata(first, encoder_->stream(), output.container());
    encoder_->stream().disposition = AV_DISPOSITION_DEFAULT;
}

void StereoMixTrack::prepare(AVCodecContext& context) const {
    chooseAudioFormat(context, inputs_.front()->from, settings_, codec_);
    context.ch_layout = kStereo;
}

void StereoMixTrack::push(AVPacket& packet) {
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        if (Input& input = *inputs_[i]; input.from.index == packet.stream_index) {
            input.decoder.push(packet, [&](FramePtr frame) {
                input.resampler->push(*frame, [this, i](FramePtr ready) { add(i, *ready); });
            });
        }
    }
}

void StereoMixTrack::add(std::size_t input, const AVFrame& frame) {
    sum_->add(input, channel(frame, 0), channel(frame, 1), [this](auto left, auto right) { limit(left, right); });
}

void StereoMixTrack::limit(std::span<const float> left, std::span<const float> right) {
    limiter_->push(left, right, [this](auto l, auto r) { encode(l, r); });
}

void StereoMixTrack::encode(std::span<const float> left, std::span<const float> right) {
    const FramePtr frame = newFrame();
    frame->nb_samples = static_cast<int>(left.size());
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = encoder_->context().sample_rate;
    frame->ch_layout = kStereo;
    frame->pts = encoded_;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    std::copy(left.begin(), left.end(), reinterpret_cast<float*>(frame->extended_data[0]));
    std::copy(right.begin(), right.end(), reinterpret_cast<float*>(frame->extended_data[1]));
    encoded_ += frame->nb_samples;
    packing_->push(*frame, [this](FramePtr ready) { encoder_->encode(*ready); });
}

void StereoMixTrack::finish() {
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        Input& input = *inputs_[i];
        const auto mix = [this, i](FramePtr ready) { add(i, *ready); };
        input.decoder.finish([&](FramePtr frame) { input.resampler->push(*frame, mix); });
        input.resampler->finish(mix);
        sum_->finish(i, [this](auto left, auto right) { limit(left, right); });
    }
    limiter_->finish([this](auto left, auto right) { encode(left, right); });
    packing_->finish([this](FramePtr ready) { encoder_->encode(*ready); });
    encoder_->finish();
}

}  // namespace krv::media
