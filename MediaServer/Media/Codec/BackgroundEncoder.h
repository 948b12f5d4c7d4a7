#pragma once

#include <functional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Encodes frames on other threads, so that its caller can decode and filter meanwhile. Packets are delivered on the
/// caller's thread, in order. Not thread-safe.
class BackgroundEncoder {
public:
    /// The packet may be taken.
    using Sink = std::function<void(AVPacket& packet)>;

    BackgroundEncoder() = default;
    /// Drops what is not yet encoded.
    virtual ~BackgroundEncoder() = default;
    BackgroundEncoder(const BackgroundEncoder&) = delete;
    BackgroundEncoder& operator=(const BackgroundEncoder&) = delete;

    /// Queues a frame and delivers the packets that are ready. Waits while the queue is full. Throws Failure
    /// InternalError if the encoder has failed.
    virtual void push(FramePtr frame, const Sink& sink) = 0;
    /// Waits until all frames are encoded and delivers the remaining packets. Throws as push() does.
    virtual void finish(const Sink& sink) = 0;

protected:
    /// Throws what corresponds to an error of FFmpeg's encoder. Does nothing for 0.
    static void check(int error);
};

}  // namespace krv::media
