#include <algorithm>
#include <cstring>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Transcode/SubtitleConverter.h>

namespace krv::media {
namespace {

constexpr AVRational kMilliseconds{1, 1000};
constexpr std::int64_t kMillisecond = 1000;  // in microseconds
constexpr int kLargestText = 256 * 1024;

}  // namespace

SubtitleConverter::SubtitleConverter(const AVStream& from)
    : from_(from) {}

void SubtitleConverter::open(OutputFile& output) {
    output_ = &output;
    const char* name = avcodec_get_name(from_.codecpar->codec_id);
    const AVCodec* from = avcodec_find_decoder(from_.codecpar->codec_id);
    const AVCodec* to = avcodec_find_encoder(output.container().textSubtitles);
    decoder_.reset(notNull(avcodec_alloc_context3(from)));
    encoder_.reset(notNull(avcodec_alloc_context3(to)));
    int result = avcodec_parameters_to_context(decoder_.get(), from_.codecpar);
    decoder_->pkt_timebase = from_.time_base;
    if (result >= 0) {
        result = avcodec_open2(decoder_.get(), from, nullptr);
    }
    if (result >= 0 && decoder_->subtitle_header) {
        // The styles of the source, which the encoder converts.
        const auto size = static_cast<std::size_t>(decoder_->subtitle_header_size);
        encoder_->subtitle_header = static_cast<std::uint8_t*>(notNull(av_mallocz(size + 1)));
        std::memcpy(encoder_->subtitle_header, decoder_->subtitle_header, size);
        encoder_->subtitle_header_size = decoder_->subtitle_header_size;
    }
    encoder_->time_base = kMicroseconds;
    if (result >= 0) {
        result = avcodec_open2(encoder_.get(), to, nullptr);
    }
    if (result < 0) {
        fail(FailureCause::UnconvertibleSubtitles, result, "opening the subtitle codecs", name);
    }
    to_ = &output.addStream();
    if (avcodec_parameters_from_context(to_->codecpar, encoder_.get()) < 0) {
        throw std::bad_alloc();
    }
    to_->codecpar->codec_tag = 0;
    // FFmpeg's mov muxer compares the raw decoding times of text and other tracks. In a coarser unit, a line that
    // overlaps the next one would be closed far too early, and all later lines be delayed.
    to_->time_base = kMicroseconds;
    copyTrackMetadata(from_, *to_, output.container());
}

void SubtitleConverter::push(const AVPacket& packet) {
    if ((packet.flags & AV_PKT_FLAG_DISCARD) != 0) {
        return;  // the edits of the movie cut it out
    }
    AVSubtitle subtitle{};
    int got = 0;
    if (av_packet_ref(packet_.get(), &packet) < 0) {
        throw std::bad_alloc();
    }
    const int result = avcodec_decode_subtitle2(decoder_.get(), &subtitle, &got, packet_.get());
    av_packet_unref(packet_.get());
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0 || !got) {
        return;  // skip a damaged line, like a damaged frame
    }
    if (subtitle.pts == AV_NOPTS_VALUE) {
        subtitle.pts = av_rescale_q(packet.pts, from_.time_base, kMicroseconds);
    }
    if (subtitle.end_display_time == 0 || subtitle.end_display_time == UINT32_MAX) {
        subtitle.end_display_time =
            subtitle.start_display_time + static_cast<std::uint32_t>(std::max<std::int64_t>(
                                              0, av_rescale_q(packet.duration, from_.time_base, kMilliseconds)));
    }
    if (subtitle.num_rects > 0) {
        write(subtitle);
    }
    avsubtitle_free(&subtitle);
}

void SubtitleConverter::write(AVSubtitle& subtitle) {
    // Encoders support the duration of a line, but not a start later than that of its packet.
    subtitle.pts += av_rescale_q(subtitle.start_display_time, kMilliseconds, kMicroseconds);
    subtitle.end_display_time -= subtitle.start_display_time;
    subtitle.start_display_time = 0;
    if (const std::int64_t late = -subtitle.pts / kMillisecond; late > 0 && late < subtitle.end_display_time) {
        subtitle.end_display_time -= static_cast<std::uint32_t>(late);
        subtitle.pts = 0;
    }
    if (subtitle.pts < 0 || av_new_packet(packet_.get(), kLargestText) < 0) {
        return;
    }
    const int size = avcodec_encode_subtitle(encoder_.get(), packet_->data, packet_->size, &subtitle);
    if (size > 0) {
        av_shrink_packet(packet_.get(), size);
        packet_->pts = packet_->dts = av_rescale_q(subtitle.pts, kMicroseconds, kMilliseconds);
        packet_->duration = subtitle.end_display_time;
        output_->write(*to_, *packet_, kMilliseconds);
    }
    av_packet_unref(packet_.get());
}

}  // namespace krv::media
