#include <algorithm>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Subtitles/SubtitleDecoder.h>

namespace krv::media {
namespace {

constexpr std::int64_t kMillisecond = 1000;  // in microseconds

}  // namespace

SubtitleDecoder::SubtitleDecoder(const AVStream& from)
    : from_(from) {
    const AVCodec* codec = avcodec_find_decoder(from.codecpar->codec_id);
    decoder_.reset(notNull(avcodec_alloc_context3(codec)));
    int result = avcodec_parameters_to_context(decoder_.get(), from.codecpar);
    decoder_->pkt_timebase = from.time_base;
    if (result >= 0) {
        result = avcodec_open2(decoder_.get(), codec, nullptr);
    }
    if (result < 0) {
        fail(FailureCause::UnconvertibleSubtitles, result, "opening the subtitle decoder",
             avcodec_get_name(from.codecpar->codec_id));
    }
}

void SubtitleDecoder::push(const AVPacket& packet, const Take& take) {
    if ((packet.flags & AV_PKT_FLAG_DISCARD) != 0) {
        return;
    }
    AVSubtitle content{};
    int got = 0;
    if (av_packet_ref(packet_.get(), &packet) < 0) {
        throw std::bad_alloc();
    }
    const int result = avcodec_decode_subtitle2(decoder_.get(), &content, &got, packet_.get());
    av_packet_unref(packet_.get());
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0 || !got) {
        return;
    }
    const std::int64_t time =
        content.pts != AV_NOPTS_VALUE ? content.pts : av_rescale_q(packet.pts, from_.time_base, kMicroseconds);
    const std::int64_t start = time + content.start_display_time * kMillisecond;
    std::int64_t end = time + content.end_display_time * kMillisecond;
    if (content.end_display_time == 0 || content.end_display_time == UINT32_MAX) {
        const std::int64_t duration = av_rescale_q(packet.duration, from_.time_base, kMicroseconds);
        end = duration > 0 ? start + duration : Subtitle::kOpen;
    }
    try {
        take({content, start, end, decoder_->width, decoder_->height});
    } catch (...) {
        avsubtitle_free(&content);
        throw;
    }
    avsubtitle_free(&content);
}

}  // namespace krv::media
