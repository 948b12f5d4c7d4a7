#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Media/Codec/BackgroundEncoder.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Encodes AAC in segments of about two seconds with several encoders at the same time, because FFmpeg's encoder has no
/// threads. Its packets do not depend on how fast the threads are.
///
/// The encoders take turns. Each begins some frames before its segment, so that nothing is left of what it encoded
/// before. At the end of its own segment it goes on until the next segment's encoder has given a packet the same window,
/// and from there the other's packets follow: neighbouring packets overlap, and their windows must fit together. In the
/// worst case the windows are never the same, and the first encoder encodes everything.
///
/// The frames must have the encoder's size, except for the last, and follow each other without gaps.
class SegmentedEncoder final : public BackgroundEncoder {
public:
    /// Opens another encoder that is equal to the first. Called on the caller's thread.
    using Open = std::function<CodecContextPtr()>;

    /// Returns whether this open encoder can be used, and whether it is worth it on this machine.
    [[nodiscard]] static bool suits(const AVCodecContext& encoder);

    /// Borrows an open encoder that suits, which nothing else may use until this object is destroyed.
    SegmentedEncoder(AVCodecContext& first, Open open);
    ~SegmentedEncoder() override;

    void push(FramePtr frame, const Sink& sink) override;
    void finish(const Sink& sink) override;

private:
    struct Segment;
    using Segments = std::deque<std::unique_ptr<Segment>>;
    /// The packets that are ready, the segments that are no longer needed, and FFmpeg's error if an encoder has failed.
    struct Ready {
        std::deque<PacketPtr> packets;
        Segments delivered;
        int error = 0;
    };

    [[nodiscard]] std::unique_ptr<Segment> newSegment(std::int64_t start);
    /// Waits until an encoder's segment has ended, or has come to this frame.
    [[nodiscard]] bool isFree(const AVCodecContext& encoder, std::int64_t end);
    void run(Segment& segment);
    [[nodiscard]] int encodeAll(Segment& segment);
    [[nodiscard]] bool isAbandoned(const Segment& segment);
    /// Waits for the segment's next frame. Returns null if there is none, or the segment is abandoned.
    [[nodiscard]] FramePtr frameFor(Segment& segment);
    [[nodiscard]] int encode(Segment& segment, const AVFrame* frame);
    /// Waits until the next segment's encoder has come as far. Returns whether its packets can follow from here.
    [[nodiscard]] bool meetsFollower(Segment& segment);
    [[nodiscard]] Segment* followerOf(const Segment& segment) KRV_REQUIRES(mutex_);
    [[nodiscard]] std::int64_t slowest() const KRV_REQUIRES(mutex_);
    void dropFrames() KRV_REQUIRES(mutex_);
    [[nodiscard]] Ready takeReady() KRV_REQUIRES(mutex_);
    [[nodiscard]] bool ended() const KRV_REQUIRES(mutex_);
    static void deliver(const Ready& ready, const Sink& sink);

    const Open open_;
    const std::int64_t mostFrames_;
    std::vector<std::shared_ptr<AVCodecContext>> encoders_;
    std::int64_t pushed_ = 0;
    std::int64_t firstTime_ = 0;
    Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<FramePtr> frames_ KRV_GUARDED_BY(mutex_);
    /// Frames are numbered from 0. Packet n was made of the frames n and n + 1, so the first one has the number -1.
    std::int64_t firstFrame_ KRV_GUARDED_BY(mutex_) = 0;
    std::int64_t nextFrame_ KRV_GUARDED_BY(mutex_) = 0;
    /// Those that are not yet delivered, in order.
    Segments segments_ KRV_GUARDED_BY(mutex_);
    std::int64_t nextPacket_ KRV_GUARDED_BY(mutex_) = -1;
    /// No frame follows.
    bool complete_ KRV_GUARDED_BY(mutex_) = false;
    int error_ KRV_GUARDED_BY(mutex_) = 0;
};

}  // namespace krv::media
