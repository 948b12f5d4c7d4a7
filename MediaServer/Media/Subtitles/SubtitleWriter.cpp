#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Subtitles/SubtitleWriter.h>

namespace krv::media {
namespace {

constexpr std::int64_t kMillisecond = 1000;  // in microseconds
constexpr int kLargestText = 256 * 1024;

}  // namespace

SubtitleWriter::SubtitleWriter(const AVStream& from, const SubtitleDecoder& decoder, OutputFile& output)
    : output_(output)
    , to_(output.addStream()) {
    const AVCodec* codec = avcodec_find_encoder(output.container().textSubtitles);
    encoder_.reset(notNull(avcodec_alloc_context3(codec)));
    if (const AVCodecContext& styled = decoder.context(); styled.subtitle_header) {
        const auto size = static_cast<std::size_t>(styled.subtitle_header_size);
        encoder_->subtitle_header = static_cast<std::uint8_t*>(notNull(av_mallocz(size + 1)));
        std::memcpy(encoder_->subtitle_header, styled.subtitle_header, size);
        encoder_->subtitle_header_size = styled.subtitle_header_size;
    }
    encoder_->time_base = kMicroseconds;
    if (const int result = avcodec_open2(encoder_.get(), codec, nullptr); result < 0) {
        fail(FailureCause::UnconvertibleSubtitles, result, "opening the subtitle encoder",
             avcodec_get_name(from.codecpar->codec_id));
    }
    if (avcodec_parameters_from_context(to_.codecpar, encoder_.get()) < 0) {
        throw std::bad_alloc();
    }
    to_.codecpar->codec_tag = 0;
    // FFmpeg's mov muxer compares the raw decoding times of text and other tracks. In a coarser unit, a line that
    // overlaps the next one would be closed far too early, and all later lines be delayed.
    to_.time_base = kMicroseconds;
    copyTrackMetadata(from, to_, output.container());
}

void SubtitleWriter::write(const Subtitle& lines) {
    AVSubtitle content = lines.content;  // borrows the rectangles
    const std::int64_t duration = lines.end == Subtitle::kOpen ? 0 : lines.end - lines.start;
    content.pts = lines.start;
    content.start_display_time = 0;
    content.end_display_time = static_cast<std::uint32_t>(std::min<std::int64_t>(duration / kMillisecond, UINT32_MAX));
    if (av_new_packet(packet_.get(), kLargestText) < 0) {
        throw std::bad_alloc();
    }
    const int size = avcodec_encode_subtitle(encoder_.get(), packet_->data, packet_->size, &content);
    if (size > 0) {
        av_shrink_packet(packet_.get(), size);
        if (encoder_->codec_id == AV_CODEC_ID_ASS) {
            numberLine(*packet_, lines_++);
        }
        packet_->pts = packet_->dts = lines.start;
        packet_->duration = duration;
        output_.write(to_, *packet_, kMicroseconds);
    }
    av_packet_unref(packet_.get());
}

void numberLine(AVPacket& packet, int number) {
    const std::string_view old(reinterpret_cast<const char*>(packet.data), static_cast<std::size_t>(packet.size));
    const auto comma = old.find(',');
    const bool numbered = comma != std::string_view::npos && std::all_of(old.begin(), old.begin() + comma, [](char c) {
                              return std::isdigit(static_cast<unsigned char>(c)) != 0;
                          });
    if (!numbered) {
        return;
    }
    const std::string line = std::to_string(number) + std::string(old.substr(comma));
    PacketPtr changed = newPacket();
    if (av_new_packet(changed.get(), static_cast<int>(line.size())) < 0 ||
        av_packet_copy_props(changed.get(), &packet) < 0) {
        throw std::bad_alloc();
    }
    std::memcpy(changed->data, line.data(), line.size());
    changed->stream_index = packet.stream_index;
    av_packet_unref(&packet);
    av_packet_move_ref(&packet, changed.get());
}

}  // namespace krv::media
