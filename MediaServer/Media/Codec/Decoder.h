#pragma once

#include <functional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns how many threads a codec or filter may use: one per core.
[[nodiscard]] int coreCount() noexcept;

/// Decodes a video or audio stream. Skips damaged packets. Not thread-safe; the codec may use threads of its own.
class Decoder {
public:
    /// Receives ownership of each frame. AVFrame::pts is its best-effort timestamp in the stream's time base.
    using Sink = std::function<void(FramePtr)>;

    /// threads: how many the codec may use. Throws Failure with UndecodableCodec or Damaged.
    explicit Decoder(const AVStream& stream, int threads = coreCount());

    void push(const AVPacket& packet, const Sink& sink);
    void finish(const Sink& sink);
    /// Resets the decoder before a packet from another position.
    void flush();

    [[nodiscard]] AVCodecContext& context() const noexcept { return *context_; }

private:
    void send(const AVPacket* packet, const Sink& sink);
    void receive(const Sink& sink);

    CodecContextPtr context_;
};

}  // namespace krv::media
