#include <array>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <MediaServer/Media/Codec/StaticTables.h>

namespace krv::media {
namespace {

constexpr std::array kDecoders{AV_CODEC_ID_H264, AV_CODEC_ID_MPEG4, AV_CODEC_ID_MPEG2VIDEO,
                               AV_CODEC_ID_AAC,  AV_CODEC_ID_MP3,   AV_CODEC_ID_AC3};

/// Opens and closes a codec. One that cannot be opened computes its tables later.
void openOnce(const AVCodec* codec) noexcept {
    AVCodecContext* context = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (!context) {
        return;
    }
    context->thread_count = 1;
    context->width = context->height = 16;
    context->pix_fmt = AV_PIX_FMT_YUVJ420P;
    context->time_base = {1, 1};
    context->sample_rate = 48000;
    av_channel_layout_default(&context->ch_layout, 2);
    [[maybe_unused]] const int result = avcodec_open2(context, codec, nullptr);
    avcodec_free_context(&context);
}

}  // namespace

void computeStaticTables() noexcept {
    for (const AVCodecID id : kDecoders) {
        openOnce(avcodec_find_decoder(id));
    }
    openOnce(avcodec_find_encoder(AV_CODEC_ID_MJPEG));  // of thumbnails and posters
}

}  // namespace krv::media
