#pragma once

#include <condition_variable>
#include <deque>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Media/Codec/BackgroundEncoder.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Runs an encoder on one thread. For encoders that have no threads themselves, such as those of audio.
class EncoderThread final : public BackgroundEncoder {
public:
    /// Borrows an open encoder, which nothing else may use until this object is destroyed.
    explicit EncoderThread(AVCodecContext& encoder);
    ~EncoderThread() override;

    void push(FramePtr frame, const Sink& sink) override;
    void finish(const Sink& sink) override;

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
