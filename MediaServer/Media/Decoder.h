#pragma once

#include <functional>

#include <MediaServer/Media/AV.h>

namespace krv::media {

/// Decodes a video or audio stream. Damaged packets are skipped. One thread (the codec may use more of its
/// own).
class Decoder {
public:
    /// Receives each frame, its best time in AVFrame::pts, in units of the stream. May be kept or changed.
    using Sink = std::function<void(FramePtr)>;

    /// Throws Failure if the codec cannot be decoded.
    explicit Decoder(const AVStream& stream);

    void push(const AVPacket& packet, const Sink& sink);
    void finish(const Sink& sink);

    [[nodiscard]] AVCodecContext& context() const noexcept { return *context_; }

private:
    void send(const AVPacket* packet, const Sink& sink);
    void receive(const Sink& sink);

    CodecContextPtr context_;
};

/// How many threads a codec or filter may use: one per core.
[[nodiscard]] int coreCount() noexcept;

}  // namespace krv::media
