#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Runs an encoder on a thread of its own, so that its caller can decode and filter meanwhile. For encoders that have
/// no threads themselves, such as those of audio. Packets are delivered on the caller's thread. Not thread-safe.
class EncoderThread {
public:
    /// The packet may be taken.
    using Sink = std::function<void(AVPacket& packet)>;

    /// Borrows an open encoder, which nothing else may use until this object is destroyed.
    explicit EncoderThread(AVCodecContext& encoder);
    /// Drops what is not yet encoded.
    ~EncoderThread();
    EncoderThread(const EncoderThread&) = delete;
    EncoderThread& operator=(const EncoderThread&) = delete;

    /// Queues a frame and delivers the packets that are ready. Waits while the queue is full. Throws Failure
    /// InternalError if the encoder has failed.
    void push(FramePtr frame, const Sink& sink);
    /// Waits until all frames are encoded and delivers the remaining packets. Throws as push() does.
    void finish(const Sink& sink);

private:
    void run();
    [[nodiscard]] FramePtr nextFrame();
    /// Encodes a frame, or what remains if it is null. Returns FFmpeg's error.
    [[nodiscard]] int encode(const AVFrame* frame);
    /// The packets that are ready, and FFmpeg's error if the encoder has failed.
    struct Ready {
        std::deque<PacketPtr> packets;
        int error = 0;
    };
    [[nodiscard]] Ready takeReady() KRV_REQUIRES(mutex_);
    static void deliver(const Ready& ready, const Sink& sink);

    AVCodecContext& encoder_;
    Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<FramePtr> frames_ KRV_GUARDED_BY(mutex_);
    std::deque<PacketPtr> packets_ KRV_GUARDED_BY(mutex_);
    /// No frame follows those in the queue.
    bool complete_ KRV_GUARDED_BY(mutex_) = false;
    bool abandoned_ KRV_GUARDED_BY(mutex_) = false;
    bool ended_ KRV_GUARDED_BY(mutex_) = false;
    int error_ KRV_GUARDED_BY(mutex_) = 0;
    std::thread thread_;
};

}  // namespace krv::media
