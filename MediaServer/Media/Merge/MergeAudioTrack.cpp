#include <algorithm>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Merge/MergeAudioTrack.h>

namespace krv::media {

MergeAudioTrack::MergeAudioTrack(const AVStream& model, const Codec& codec, std::int64_t end)
    : model_(model)
    , codec_(codec)
    , end_(end) {}

void MergeAudioTrack::open(OutputFile& output) {
    encoder_.emplace(EncoderSession::Request{codec_, 0, settings_, hasHighResolution(model_)}, output,
                     [this](AVCodecContext& context) { chooseAudioFormat(context, model_, settings_, codec_); });
    const AVRational sample{1, encoder_->context().sample_rate};
    resampler_.emplace(encoder_->context(), sample, sampleAt(end_));
    copyTrackMetadata(model_, encoder_->stream(), output.container());
}

std::int64_t MergeAudioTrack::sampleAt(std::int64_t time) const {
    return av_rescale_q(time, kMicroseconds, AVRational{1, encoder_->context().sample_rate});
}

void MergeAudioTrack::begin(const MergePart& part) {
    part_ = part;
    fed_ = decoded_ = false;
    decoder_.reset();
    if (part.from) {
        decoder_.emplace(*part.from);
    }
    resampler_->cutAt(sampleAt(part.end));
}

void MergeAudioTrack::push(const AVPacket& packet) {
    if (!decoder_) {
        return;
    }
    fed_ = true;
    decoder_->push(packet, [this](FramePtr frame) { place(std::move(frame)); });
}

void MergeAudioTrack::place(FramePtr frame) {
    decoded_ = true;
    if (frame->pts != AV_NOPTS_VALUE) {
        frame->pts = sampleAt(part_.start) +
                     av_rescale_q(frame->pts, part_.from->time_base, AVRational{1, encoder_->context().sample_rate});
    }
    resampler_->push(*frame, [this](FramePtr ready) { encode(std::move(ready)); });
}

void MergeAudioTrack::hold(std::int64_t time) {
    if (decoder_) {
        decoder_->finish([this](FramePtr frame) { place(std::move(frame)); });
    }
    decoder_.reset();
    resampler_->fillTo(sampleAt(std::min(time, part_.end)), [this](FramePtr ready) { encode(std::move(ready)); });
}

void MergeAudioTrack::end() {
    hold(part_.end);
    if (fed_ && !decoded_) {
        fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding audio");
    }
}

void MergeAudioTrack::finish() {
    resampler_->finish([this](FramePtr ready) { encode(std::move(ready)); });
    encoder_->finish();
}

}  // namespace krv::media
