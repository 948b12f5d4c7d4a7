#include <algorithm>
#include <cstring>
#include <utility>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/StreamCopier.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// How long a bitmap is shown that has no end and no successor, in containers that cannot leave this open.
constexpr std::int64_t kLastBitmap = 3 * static_cast<std::int64_t>(AV_TIME_BASE);

void copyParameters(const AVStream& from, AVStream& to) {
    if (avcodec_parameters_copy(to.codecpar, from.codecpar) < 0) {
        throw std::bad_alloc();
    }
}

/// Returns the source's tag if it denotes the same codec in the new container, else 0, which lets the muxer choose.
std::uint32_t tagFor(const AVFormatContext& output, const Container& container, const AVCodecParameters& codec) {
    const bool movFamily = container.indexInFront;
    if (codec.codec_id == AV_CODEC_ID_HEVC && movFamily && codec.codec_tag != MKTAG('h', 'e', 'v', '1')) {
        return MKTAG('h', 'v', 'c', '1');  // the only tag that all players of this family accept
    }
    const AVCodecTag* const* tags = output.oformat->codec_tag;
    if (!tags) {
        return 0;
    }
    if (av_codec_get_id(tags, codec.codec_tag) == codec.codec_id) {
        return codec.codec_tag;
    }
    return 0;
}

}  // namespace

StreamCopier::StreamCopier(const AVStream& from)
    : from_(from) {}

void StreamCopier::open(OutputFile& output) {
    output_ = &output;
    to_ = &output.addStream();
    copyParameters(from_, *to_);
    to_->codecpar->codec_tag = tagFor(output.format(), output.container(), *from_.codecpar);
    to_->time_base = from_.time_base;
    to_->avg_frame_rate = from_.avg_frame_rate;
    to_->r_frame_rate = from_.r_frame_rate;
    to_->sample_aspect_ratio =
        from_.sample_aspect_ratio.num > 0 ? from_.sample_aspect_ratio : from_.codecpar->sample_aspect_ratio;
    to_->codecpar->sample_aspect_ratio = to_->sample_aspect_ratio;
    copyAllSideData(from_, *to_);
    copyTrackMetadata(from_, *to_, output.container());
}

void StreamCopier::push(AVPacket& packet) {
    const bool video = from_.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    if (!started_ && video && !(packet.flags & AV_PKT_FLAG_KEY)) {
        return;  // nothing can be shown before the first key frame
    }
    if (packet.flags & AV_PKT_FLAG_DISCARD) {
        pushHidden(packet);
    } else {
        pushShown(packet);
    }
}

void StreamCopier::pushHidden(AVPacket& packet) {
    const AVMediaType kind = from_.codecpar->codec_type;
    if (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO) {
        return;  // no other packet refers to it
    }
    // What an edit list cuts off at the end is left out, except for packets that the decoder needs for later ones.
    if (shownUntil_) {
        hiddenAfter_.push_back(reference(packet));
        return;
    }
    // If the container cannot hide the audio before the beginning, it is dropped, except for the one packet that the
    // decoder needs as priming.
    if (kind == AVMEDIA_TYPE_AUDIO && !output_->container().edits) {
        hidden_ = reference(packet);
        return;
    }
    started_ = true;
    write(packet);
}

void StreamCopier::pushShown(AVPacket& packet) {
    started_ = true;
    if (hidden_) {
        write(*std::exchange(hidden_, nullptr));
    }
    // Where the decoding time steps back, another edit begins, which does not need what the one before hides.
    if (!hiddenAfter_.empty() && packet.dts <= hiddenAfter_.back()->dts) {
        hiddenAfter_.clear();
    }
    hidesLater_ |= !hiddenAfter_.empty();
    for (const PacketPtr& earlier : std::exchange(hiddenAfter_, {})) {
        write(*earlier);
    }
    const std::int64_t time = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (time != AV_NOPTS_VALUE) {
        shownUntil_ = std::max(shownUntil_.value_or(time), time + packet.duration);
    }
    write(packet);
}

void StreamCopier::finish() {
    if (hidesLater_ && output_->container().edits) {
        output_->endAt(*to_, static_cast<double>(*shownUntil_) * av_q2d(from_.time_base));
    }
}

void StreamCopier::write(AVPacket& packet) {
    makeTimesValid(packet);
    output_->write(*to_, packet, to_->time_base);
}

// In containers without decoding times the first ones are unknown. Reordered frames are decoded as many frame durations
// ahead as the codec's delay says.
std::int64_t StreamCopier::guessDts(const AVPacket& packet) const {
    const AVRational rate = from_.avg_frame_rate;
    const std::int64_t step = rate.num > 0 && rate.den > 0 ? av_rescale_q(1, av_inv_q(rate), from_.time_base)
                                                           : std::max<std::int64_t>(packet.duration, 1);
    if (lastDts_) {
        return av_rescale_q(*lastDts_, to_->time_base, from_.time_base) + step;
    }
    const std::int64_t first = packet.pts == AV_NOPTS_VALUE ? 0 : packet.pts;
    const bool video = from_.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    return video ? first - from_.codecpar->video_delay * step : first;
}

// Muxers require rising decoding times. Those of broken files are not, nor are all times after rounding to another time
// base.
void StreamCopier::makeTimesValid(AVPacket& packet) {
    const AVCodecParameters& codec = *from_.codecpar;
    if (packet.dts == AV_NOPTS_VALUE) {
        packet.dts = guessDts(packet);
    }
    if (codec.codec_type == AVMEDIA_TYPE_AUDIO && codec.sample_rate > 0 && packet.dts != AV_NOPTS_VALUE) {
        // Milliseconds are too coarse for samples, so the length of a packet determines where the next one starts.
        const std::int64_t samples = std::max(0, av_get_audio_frame_duration2(from_.codecpar, packet.size));
        packet.dts = av_rescale_delta(from_.time_base, packet.dts, AVRational{1, codec.sample_rate},
                                      static_cast<int>(samples), &rounding_, to_->time_base);
        packet.pts = packet.dts;
        packet.duration = av_rescale_q(packet.duration, from_.time_base, to_->time_base);
    } else {
        av_packet_rescale_ts(&packet, from_.time_base, to_->time_base);
    }
    const bool subtitle = codec.codec_type == AVMEDIA_TYPE_SUBTITLE;  // two subtitles may start at the same time
    if (subtitle && packet.duration <= 0 && !isTextSubtitle(codec.codec_id) && output_->container().edits) {
        packet.duration = av_rescale_q(kLastBitmap, kMicroseconds, to_->time_base);  // ends earlier if another follows
    }
    if (lastDts_ && packet.dts <= *lastDts_ && !(subtitle && packet.dts == *lastDts_)) {
        packet.dts = *lastDts_ + 1;
    }
    packet.pts = packet.pts == AV_NOPTS_VALUE ? packet.dts : std::max(packet.pts, packet.dts);
    lastDts_ = packet.dts;
}

CoverCopier::CoverCopier(const AVStream& from)
    : from_(from) {}

void CoverCopier::open(OutputFile& output) {
    output_ = &output;
    const bool png = from_.codecpar->codec_id == AV_CODEC_ID_PNG;
    if (output.container().cover == CoverArt::Tag || output.writesKeyedTags()) {
        output.setCover(from_.attached_pic, png);
        return;
    }
    to_ = &output.addStream();
    copyParameters(from_, *to_);
    to_->codecpar->codec_tag = 0;
    to_->time_base = from_.time_base;
    copyTrackMetadata(from_, *to_, output.container());
    to_->disposition = AV_DISPOSITION_ATTACHED_PIC;
    if (output.container().cover != CoverArt::Attachment) {
        return;
    }
    const AVPacket& picture = from_.attached_pic;
    const auto size = static_cast<std::size_t>(picture.size);
    AVCodecParameters& codec = *to_->codecpar;
    to_->disposition = 0;
    codec.codec_type = AVMEDIA_TYPE_ATTACHMENT;
    av_freep(&codec.extradata);
    codec.extradata = static_cast<std::uint8_t*>(notNull(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE)));
    codec.extradata_size = picture.size;
    std::memcpy(codec.extradata, picture.data, size);
    av_dict_set(&to_->metadata, "filename", png ? "cover.png" : "cover.jpg", 0);
    av_dict_set(&to_->metadata, "mimetype", png ? "image/png" : "image/jpeg", 0);
}

void CoverCopier::finish() {
    if (!to_ || output_->container().cover != CoverArt::Stream) {
        return;
    }
    const PacketPtr packet = reference(from_.attached_pic);
    packet->pts = packet->dts = 0;
    packet->duration = 0;
    output_->write(*to_, *packet, to_->time_base);
}

}  // namespace krv::media
