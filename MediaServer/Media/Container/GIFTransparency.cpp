#include <cstdint>

#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Container/GIFTransparency.h>

namespace krv::media {
namespace {

bool hasTransparentPixel(const AVFrame& frame) {
    if (frame.format != AV_PIX_FMT_RGB32) {
        return true;
    }
    for (int y = 0; y < frame.height; ++y) {
        const auto* const row = reinterpret_cast<const std::uint32_t*>(frame.data[0] + y * frame.linesize[0]);
        for (int x = 0; x < frame.width; ++x) {
            if (row[x] >> 24 != 0xff) {
                return true;
            }
        }
    }
    return false;
}

/// Owns an opened file.
class OpenGIF {
public:
    OpenGIF(int descriptor, const AVInputFormat& gif)
        : io_(descriptor, DescriptorIO::Mode::Read, [](std::int64_t) {})
        , format_(notNull(avformat_alloc_context())) {
        format_->pb = io_.context();
        if (avformat_open_input(&format_, "", &gif, nullptr) < 0) {
            format_ = nullptr;
        }
    }
    ~OpenGIF() { avformat_close_input(&format_); }
    OpenGIF(const OpenGIF&) = delete;
    OpenGIF& operator=(const OpenGIF&) = delete;

    [[nodiscard]] bool read(AVPacket& packet) const { return format_ && av_read_frame(format_, &packet) >= 0; }

private:
    DescriptorIO io_;
    AVFormatContext* format_;
};

}  // namespace

bool showsThrough(int descriptor, const AVInputFormat& gif) {
    const AVCodec* const codec = avcodec_find_decoder(AV_CODEC_ID_GIF);
    const CodecContextPtr decoder(notNull(avcodec_alloc_context3(codec)));
    decoder->thread_count = 1;
    const OpenGIF file(descriptor, gif);
    const PacketPtr packet = newPacket();
    const FramePtr frame = newFrame();
    const bool decoded = avcodec_open2(decoder.get(), codec, nullptr) >= 0 && file.read(*packet) &&
                         avcodec_send_packet(decoder.get(), packet.get()) >= 0 &&
                         avcodec_receive_frame(decoder.get(), frame.get()) >= 0;
    return !decoded || hasTransparentPixel(*frame);
}

}  // namespace krv::media
