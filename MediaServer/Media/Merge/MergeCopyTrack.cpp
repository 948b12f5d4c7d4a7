#include <algorithm>

#include <MediaServer/Media/Merge/MergeCopyTrack.h>

namespace krv::media {

MergeCopyTrack::MergeCopyTrack(const AVStream& model)
    : model_(model)
    , copier_(model) {}

void MergeCopyTrack::push(const AVPacket& packet) {
    PacketPtr moved = reference(packet);
    if (model_.codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
        pushVideo(std::move(moved));
    } else {
        pushAudio(std::move(moved));
    }
}

void MergeCopyTrack::pushVideo(PacketPtr packet) {
    av_packet_rescale_ts(packet.get(), part_.from->time_base, model_.time_base);
    const std::int64_t start = av_rescale_q(part_.start, kMicroseconds, model_.time_base);
    const std::int64_t end = av_rescale_q(part_.end, kMicroseconds, model_.time_base);
    if (packet->pts != AV_NOPTS_VALUE) {
        packet->pts += start;
    }
    if (packet->dts != AV_NOPTS_VALUE) {
        packet->dts += start;
    }
    const std::int64_t shown = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    // The plan lets this happen only to video without reordered frames.
    if (shown != AV_NOPTS_VALUE && shown + packet->duration / 2 >= end && end > start) {
        return;
    }
    shownUntil_ = std::max(shownUntil_, shown + packet->duration);
    if (waiting_) {
        copier_.push(*waiting_);
    }
    waiting_ = std::move(packet);
}

std::int64_t MergeCopyTrack::samplesOf(const AVPacket& packet) const {
    if (const int samples = av_get_audio_frame_duration2(part_.from->codecpar, packet.size); samples > 0) {
        return samples;
    }
    return av_rescale_q(packet.duration, part_.from->time_base, AVRational{1, model_.codecpar->sample_rate});
}

// Merge.cpp explains why packets are counted.
void MergeCopyTrack::pushAudio(PacketPtr packet) {
    const AVRational sample{1, model_.codecpar->sample_rate};
    const std::int64_t start = av_rescale_q(part_.start, kMicroseconds, sample);
    const std::int64_t end = av_rescale_q(part_.end, kMicroseconds, sample);
    std::int64_t length = samplesOf(*packet);
    const std::int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    const std::int64_t wanted =
        time == AV_NOPTS_VALUE ? samples_ : start + av_rescale_q(time, part_.from->time_base, sample);
    if (wanted >= end - length / 2) {
        return;
    }
    if (!heard_ || wanted > samples_ + length / 2) {
        samples_ = wanted;
    }
    if (wanted < samples_ - length / 2) {
        return;
    }
    heard_ = true;
    if (!part_.isFirst) {
        packet->flags &= ~AV_PKT_FLAG_DISCARD;
    }
    if (!part_.isLast && (!part_.isFirst || wanted > start)) {
        av_packet_free_side_data(packet.get());  // it would hide samples that are no longer at the end
    }
    packet->pts = packet->dts = av_rescale_q(samples_, sample, model_.time_base);
    packet->duration = av_rescale_q(length, sample, model_.time_base);
    samples_ += length;
    copier_.push(*packet);
}

void MergeCopyTrack::finish() {
    if (!waiting_) {
        return;
    }
    const std::int64_t end = av_rescale_q(part_.end, kMicroseconds, model_.time_base);
    if (end > shownUntil_ + waiting_->duration / 2) {
        waiting_->duration += end - shownUntil_;
    }
    copier_.push(*waiting_);
}

}  // namespace krv::media
