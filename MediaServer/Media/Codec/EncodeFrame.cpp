#include <MediaServer/Media/Codec/EncodeFrame.h>

namespace krv::media {

int encodeFrame(AVCodecContext& encoder, const AVFrame* frame, const std::function<void(AVPacket&)>& sink) {
    const PacketPtr packet(av_packet_alloc());
    if (!packet) {
        return AVERROR(ENOMEM);
    }
    int result = avcodec_send_frame(&encoder, frame);
    if (result < 0 && result != AVERROR_EOF) {
        return result;
    }
    while ((result = avcodec_receive_packet(&encoder, packet.get())) >= 0) {
        sink(*packet);
        av_packet_unref(packet.get());
    }
    return result == AVERROR(EAGAIN) || result == AVERROR_EOF ? 0 : result;
}

}  // namespace krv::media
