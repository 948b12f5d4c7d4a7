#pragma once

#include <functional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// How many threads a codec or filter may use: one per core.
[[nodiscard]] int coreCount() noexcept;

/// Decodes a video or audio stream. Damaged packets are skipped. One thread (the codec may use more of its
/// own).
class Decoder {
public:
    /// Receives each frame, its best time in AVFrame::pts, in units of the stream. May be kept or changed.
    using Sink = std::function<void(FramePtr)>;

    /// Throws Failure with UndecodableCodec or Damaged. threads: how many of its own the codec may use.
    explicit Decoder(const AVStream& stream, int threads = coreCount());

    void push(const AVPacket& packet, const Sink& sink);
    void finish(const Sink& sink);
    /// Forgets what it has been given so far: the next packet is one from elsewhere.
    void flush();

    [[nodiscard]] AVCodecContext& context() const noexcept { return *context_; }

private:
    void send(const AVPacket* packet, const Sink& sink);
    void receive(const Sink& sink);

    CodecContextPtr context_;
};

}  // namespace krv::media
