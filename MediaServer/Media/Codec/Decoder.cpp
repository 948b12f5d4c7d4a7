#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {

namespace {

/// Returns the decoder for a stream, or null. FFmpeg's own decoders of VP8 and VP9 ignore the alpha channel, which is
/// stored beside the packets; those of libvpx do not.
const AVCodec* decoderOf(const AVStream& stream) {
    const AVCodecID id = stream.codecpar->codec_id;
    const AVCodec* transparent = nullptr;
    if (hasAlphaBesidePackets(stream)) {
        transparent = avcodec_find_decoder_by_name(id == AV_CODEC_ID_VP8 ? "libvpx" : "libvpx-vp9");
    }
    return transparent && transparent->id == id ? transparent : avcodec_find_decoder(id);
}

}  // namespace

int coreCount() noexcept {
    return std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, 16);
}

Decoder::Decoder(const AVStream& stream, int threads) {
    const char* name = avcodec_get_name(stream.codecpar->codec_id);
    const AVCodec* codec = decoderOf(stream);
    if (!codec) {
        throw Failure({.cause = FailureCause::UndecodableCodec, .subject = name});
    }
    context_.reset(notNull(avcodec_alloc_context3(codec)));
    int result = avcodec_parameters_to_context(context_.get(), stream.codecpar);
    if (result >= 0) {
        context_->pkt_timebase = stream.time_base;  // needed to cut off the encoder delay exactly
        context_->thread_count = threads;
        result = avcodec_open2(context_.get(), codec, nullptr);
    }
    if (result < 0) {
        fail(FailureCause::Damaged, result, fmt::format("opening the decoder {}", name));
    }
}

void Decoder::push(const AVPacket& packet, const Sink& sink) {
    send(&packet, sink);
}

void Decoder::finish(const Sink& sink) {
    send(nullptr, sink);
}

void Decoder::flush() {
    avcodec_flush_buffers(context_.get());
}

void Decoder::send(const AVPacket* packet, const Sink& sink) {
    // An error concerns this packet only, so decoding goes on. Whether there were any frames at all is known at the
    // end.
    const int result = avcodec_send_packet(context_.get(), packet);
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    receive(sink);
}

void Decoder::receive(const Sink& sink) {
    for (;;) {
        FramePtr frame = newFrame();
        const int result = avcodec_receive_frame(context_.get(), frame.get());
        if (result == AVERROR(ENOMEM)) {
            throw std::bad_alloc();
        }
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        if (result < 0) {
            continue;
        }
        frame->pts = frame->best_effort_timestamp;
        sink(std::move(frame));
    }
}

}  // namespace krv::media
