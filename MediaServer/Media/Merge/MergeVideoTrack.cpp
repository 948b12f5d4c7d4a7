#include <algorithm>

#include <MediaServer/Media/Codec/HDRMetadata.h>
#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Merge/MergeVideoTrack.h>

extern "C" {
#include <libavutil/imgutils.h>
}

namespace krv::media {
MergeVideoTrack::MergeVideoTrack(Model model, const Codec& codec)
    : model_(std::move(model))
    , codec_(codec) {}

void MergeVideoTrack::open(OutputFile& output) {
    Container upright = output.container();
    upright.displayMatrix = false;
    format_ = chooseVideoFormat({model_.stream, *model_.firstFrame, codec_, settings_, upright});
    format_.interlaced = false;
    format_.fitted = true;
    if (model_.width > 0) {
        format_.width = model_.width;
        format_.height = model_.height;
        format_.sampleAspect = {1, 1};
    }
    const AVRational rate = av_inv_q(model_.tick);
    encoder_.emplace(EncoderSession::Request{codec_, 0, settings_}, output, [&](AVCodecContext& context) {
        describe(format_, context);
        context.framerate = rate;
        context.time_base = av_inv_q(rate);
        if (!format_.toneMapped) {
            HDRMetadata(model_.stream, *model_.firstFrame).describeTo(context);
        }
    });
    if (model_.palette) {
        mapper_.emplace(*model_.palette, format_, encoder_->context().time_base);
    }
    const std::int64_t shown = std::max<std::int64_t>(1, av_rescale_q(1, model_.tick, kMicroseconds));
    timer_.emplace(FrameTimer::Timing{kMicroseconds, encoder_->context().time_base, true, shown, model_.end});
    AVStream& to = encoder_->stream();
    to.avg_frame_rate = rate;
    copyTrackMetadata(model_.stream, to, output.container());
    av_dict_set(&to.metadata, "alpha_mode", nullptr, 0);  // no encoder stores transparency beside its packets
    copyVideoSideData(model_.stream, to, false);
    if (!format_.toneMapped) {
        HDRMetadata(model_.stream, *model_.firstFrame).describeTo(to);
    }
}

void MergeVideoTrack::begin(const MergePart& part) {
    part_ = part;
    fed_ = false;
    latest_.reset();
    decoder_.reset();
    filter_.reset();
    if (part.from) {
        decoder_.emplace(*part.from);
    }
}

void MergeVideoTrack::push(const AVPacket& packet) {
    if (!decoder_) {
        return;
    }
    fed_ = true;
    decoder_->push(packet, [this](FramePtr frame) { convert(std::move(frame)); });
}

void MergeVideoTrack::convert(FramePtr frame) {
    if (const AVRational shape = part_.from->sample_aspect_ratio; shape.num > 0 && shape.den > 0) {
        frame->sample_aspect_ratio = shape;
    }
    if (!filter_) {
        filter_.emplace(adapted(format_, *part_.from, *frame), part_.from->time_base);
    }
    filter_->push(std::move(frame), [this](FramePtr ready) { place(std::move(ready)); });
}

void MergeVideoTrack::place(FramePtr frame) {
    const std::int64_t tick = av_rescale_q(1, model_.tick, kMicroseconds);
    std::int64_t time = latest_ ? latest_->pts + tick : part_.start;
    if (frame->pts != AV_NOPTS_VALUE) {
        time = part_.start + av_rescale_q(frame->pts, part_.from->time_base, kMicroseconds);
    }
    if (time >= part_.end || time < part_.start - tick / 2) {
        return;
    }
    // Until its first frame a source must not show the last frame of the previous source.
    if (!latest_) {
        show(*frame, part_.start);
    }
    latest_ = std::move(frame);
    latest_->pts = std::max(time, part_.start);
    show(*latest_, latest_->pts);
}

void MergeVideoTrack::show(const AVFrame& frame, std::int64_t time) {
    FramePtr shown = reference(frame);
    shown->pts = time;
    shown->pkt_duration = 0;
    timer_->push(std::move(shown), [this](FramePtr timed) { encode(std::move(timed)); });
}

void MergeVideoTrack::hold(std::int64_t time) {
    drain();
    if (!latest_ && !part_.from) {
        latest_ = black();
        show(*latest_, part_.start);
    }
    const std::int64_t tick = av_rescale_q(1, model_.tick, kMicroseconds);
    time = std::min(time, part_.end - tick);
    if (latest_ && time > latest_->pts) {
        latest_->pts = time;
        show(*latest_, time);
    }
}

void MergeVideoTrack::end() {
    drain();
    if (fed_ && !latest_) {
        fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding video");
    }
    hold(part_.end);
}

void MergeVideoTrack::drain() {
    if (!decoder_) {
        return;
    }
    decoder_->finish([this](FramePtr frame) { convert(std::move(frame)); });
    if (filter_) {
        filter_->finish([this](FramePtr ready) { place(std::move(ready)); });
    }
    decoder_.reset();
}

void MergeVideoTrack::encode(FramePtr frame) {
    frame->pict_type = AV_PICTURE_TYPE_NONE;  // the encoder chooses its own key frames
    frame->interlaced_frame = 0;
    if (mapper_) {
        return mapper_->push(std::move(frame), [this](FramePtr mapped) { encoder_->encode(*mapped); });
    }
    encoder_->encode(*frame);
}

void MergeVideoTrack::finish() {
    timer_->finish([this](FramePtr timed) { encode(std::move(timed)); });
    if (mapper_) {
        mapper_->finish([this](FramePtr mapped) { encoder_->encode(*mapped); });
    }
    encoder_->finish();
}

FramePtr MergeVideoTrack::black() const {
    FramePtr frame = newFrame();
    frame->width = format_.width;
    frame->height = format_.height;
    frame->format = format_.pixels;
    frame->color_range = format_.range;
    frame->sample_aspect_ratio = format_.sampleAspect;
    frame->pts = part_.start;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    const std::ptrdiff_t strides[4]{frame->linesize[0], frame->linesize[1], frame->linesize[2], frame->linesize[3]};
    av_image_fill_black(frame->data, strides, format_.pixels, format_.range, frame->width, frame->height);
    return frame;
}

}  // namespace krv::media
