#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include <MediaServer/Media/Codec/AACWindow.h>
#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncodeFrame.h>
#include <MediaServer/Media/Codec/SegmentedEncoder.h>

namespace krv::media {
namespace {

/// Frames of a segment: two seconds at 48 kHz.
constexpr std::int64_t kSegment = 96;
/// Frames before a segment, until an encoder no longer knows what it encoded before.
constexpr std::int64_t kWarmUp = 16;
/// The same for a new encoder, whose rate control settles slowly.
constexpr std::int64_t kNewWarmUp = 96;
/// The same number for any number of cores, so that the packets are the same. Their segments together last less than
/// what a muxer waits for, to interleave the audio with the other streams.
constexpr std::int64_t kEncoders = 4;
constexpr int kLowestSampleRate = 32'000;

}  // namespace

struct SegmentedEncoder::Segment {
    Segment(std::int64_t first, std::int64_t begin, std::shared_ptr<AVCodecContext> open)
        : start(first)
        , encoder(std::move(open))
        , nextFrame(std::max(begin, std::int64_t{0}))
        , firstPacket(begin < 0 ? -1 : begin) {}
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;
    ~Segment() {
        if (thread.joinable()) {
            thread.join();
        }
    }

    [[nodiscard]] std::int64_t endOfPackets() const { return firstPacket + static_cast<std::int64_t>(packets.size()); }

    const std::int64_t start;  // the number of its first frame, before which the encoder warms up
    const std::shared_ptr<AVCodecContext> encoder;
    std::int64_t nextFrame;
    std::int64_t firstPacket;
    std::deque<PacketPtr> packets;
    std::optional<AACWindow> lastWindow;  // of the packet that was made last, which may have been delivered
    Segment* follower = nullptr;
    bool abandoned = false;
    bool ended = false;
    std::thread thread;
};

bool SegmentedEncoder::suits(const AVCodecContext& encoder) {
    return coreCount() > 1 && encoder.codec->name == std::string_view("aac") && encoder.profile == FF_PROFILE_AAC_LOW &&
           encoder.frame_size > 0 && encoder.initial_padding == encoder.frame_size &&
           encoder.ch_layout.nb_channels <= 2 && encoder.sample_rate >= kLowestSampleRate;
}

SegmentedEncoder::SegmentedEncoder(AVCodecContext& first, Open open)
    : open_(std::move(open))
    , mostFrames_(kSegment * std::clamp<std::int64_t>(coreCount(), 2, kEncoders)) {
    encoders_.emplace_back(&first, [](AVCodecContext*) {});
}

SegmentedEncoder::~SegmentedEncoder() {
    Segments abandoned;
    {
        const LockGuard lock(mutex_);
        for (const auto& segment : segments_) {
            segment->abandoned = true;
        }
        changed_.notify_all();
        abandoned = std::exchange(segments_, {});
    }
    abandoned.clear();
    // Encoders warn of frames that they still hold when they are closed.
    for (const auto& encoder : encoders_) {
        encoder->log_level_offset = AV_LOG_TRACE;
    }
}

void SegmentedEncoder::push(FramePtr frame, const Sink& sink) {
    if (pushed_ == 0) {
        firstTime_ = frame->pts;
    }
    std::unique_ptr<Segment> segment = pushed_ % kSegment == 0 ? newSegment(pushed_) : nullptr;
    ++pushed_;
    Ready ready;
    {
        const LockGuard lock(mutex_);
        while (nextFrame_ - slowest() >= mostFrames_ && error_ == 0) {
            changed_.wait(mutex_);
        }
        if (segment) {
            Segment& begun = *segments_.emplace_back(std::move(segment));
            begun.thread = std::thread([this, &begun] { run(begun); });
        }
        frames_.push_back(std::move(frame));
        ++nextFrame_;
        changed_.notify_all();
        ready = takeReady();
    }
    deliver(ready, sink);
}

void SegmentedEncoder::finish(const Sink& sink) {
    Ready ready;
    {
        const LockGuard lock(mutex_);
        complete_ = true;
        changed_.notify_all();
        while (!ended() && error_ == 0) {
            changed_.wait(mutex_);
        }
        ready = takeReady();
    }
    deliver(ready, sink);
}

// The encoders take turns. One whose segment does not end where the next but one begins is left to it.
std::unique_ptr<SegmentedEncoder::Segment> SegmentedEncoder::newSegment(std::int64_t start) {
    const auto turn = static_cast<std::size_t>(start / kSegment % kEncoders);
    if (turn == encoders_.size()) {
        encoders_.emplace_back(open_());
        return std::make_unique<Segment>(start, start - kNewWarmUp, encoders_[turn]);
    }
    if (start > 0 && !isFree(*encoders_[turn], start - (kEncoders - 2) * kSegment)) {
        encoders_[turn] = open_();
        return std::make_unique<Segment>(start, start - kNewWarmUp, encoders_[turn]);
    }
    return std::make_unique<Segment>(start, start - kWarmUp, encoders_[turn]);
}

bool SegmentedEncoder::isFree(const AVCodecContext& encoder, std::int64_t end) {
    const LockGuard lock(mutex_);
    while (error_ == 0) {
        const auto user = std::find_if(segments_.begin(), segments_.end(), [&](const auto& segment) {
            return segment->encoder.get() == &encoder && !segment->ended;
        });
        if (user == segments_.end()) {
            return true;
        }
        if ((*user)->nextFrame >= end) {
            return false;
        }
        changed_.wait(mutex_);
    }
    return false;
}

void SegmentedEncoder::run(Segment& segment) {
    int error = 0;
    try {
        error = encodeAll(segment);
    } catch (const std::bad_alloc&) {
        error = AVERROR(ENOMEM);
    }
    const LockGuard lock(mutex_);
    if (error < 0) {
        error_ = error;
    }
    segment.ended = true;
    dropFrames();
    changed_.notify_all();
}

int SegmentedEncoder::encodeAll(Segment& segment) {
    int error = 0;
    for (bool more = true; more && error >= 0;) {
        const FramePtr frame = frameFor(segment);
        if (!frame && isAbandoned(segment)) {
            break;  // the encoder is not at its end: it will get another segment
        }
        error = encode(segment, frame.get());
        more = frame && !meetsFollower(segment);
    }
    return error;
}

bool SegmentedEncoder::isAbandoned(const Segment& segment) {
    const LockGuard lock(mutex_);
    return segment.abandoned;
}

FramePtr SegmentedEncoder::frameFor(Segment& segment) {
    const LockGuard lock(mutex_);
    while (segment.nextFrame == nextFrame_ && !complete_ && !segment.abandoned) {
        changed_.wait(mutex_);
    }
    if (segment.nextFrame == nextFrame_ || segment.abandoned) {
        return nullptr;
    }
    FramePtr frame = reference(*frames_[static_cast<std::size_t>(segment.nextFrame - firstFrame_)]);
    ++segment.nextFrame;
    dropFrames();
    changed_.notify_all();
    return frame;
}

int SegmentedEncoder::encode(Segment& segment, const AVFrame* frame) {
    bool outOfOrder = false;
    const int error = encodeFrame(*segment.encoder, frame, [&](AVPacket& packet) {
        PacketPtr taken = newPacket();
        av_packet_move_ref(taken.get(), &packet);
        const std::int64_t time = taken->pts - firstTime_;
        const LockGuard lock(mutex_);
        if (time < segment.firstPacket * segment.encoder->frame_size) {
            return;  // begun by frames of an earlier segment
        }
        outOfOrder = outOfOrder || time != segment.endOfPackets() * segment.encoder->frame_size;
        segment.lastWindow = aacWindow(*taken);
        segment.packets.push_back(std::move(taken));
        changed_.notify_all();
    });
    return outOfOrder ? AVERROR_BUG : error;
}

bool SegmentedEncoder::meetsFollower(Segment& segment) {
    const LockGuard lock(mutex_);
    while (!segment.abandoned) {
        Segment* const follower = followerOf(segment);
        const std::int64_t last = segment.endOfPackets() - 1;
        if (!follower || (follower->ended && follower->endOfPackets() <= last)) {
            return false;
        }
        if (follower->endOfPackets() > last) {
            const AVPacket& same = *follower->packets[static_cast<std::size_t>(last - follower->firstPacket)];
            if (!segment.lastWindow || segment.lastWindow != aacWindow(same)) {
                return false;
            }
            segment.follower = follower;
            return true;
        }
        changed_.wait(mutex_);
    }
    return true;
}

// Of the segments whose beginning has been passed, all but the last will not be needed.
SegmentedEncoder::Segment* SegmentedEncoder::followerOf(const Segment& segment) {
    const bool isDelivered = segments_.front().get() == &segment;
    Segment* follower = nullptr;
    for (const auto& other : segments_) {
        if (other->start > segment.start && other->start < segment.endOfPackets()) {
            if (follower && isDelivered) {
                follower->abandoned = true;
                changed_.notify_all();
            }
            follower = other.get();
        }
    }
    return follower;
}

std::int64_t SegmentedEncoder::slowest() const {
    std::int64_t frame = nextFrame_;
    for (const auto& segment : segments_) {
        if (!segment->ended) {
            frame = std::min(frame, segment->nextFrame);
        }
    }
    return frame;
}

void SegmentedEncoder::dropFrames() {
    const std::int64_t nextStart = (nextFrame_ + kSegment - 1) / kSegment * kSegment;
    const std::int64_t needed = std::min(slowest(), nextStart - kNewWarmUp);
    for (; firstFrame_ < needed; ++firstFrame_) {
        frames_.pop_front();
    }
}

SegmentedEncoder::Ready SegmentedEncoder::takeReady() {
    Ready ready{.packets = {}, .delivered = {}, .error = error_};
    while (!segments_.empty()) {
        Segment& segment = *segments_.front();
        for (; !segment.packets.empty(); segment.packets.pop_front(), ++segment.firstPacket) {
            if (segment.firstPacket == nextPacket_) {
                ready.packets.push_back(std::move(segment.packets.front()));
                ++nextPacket_;
            }
        }
        if (!segment.ended || !segment.follower) {
            break;
        }
        while (segments_.front().get() != segment.follower) {
            ready.delivered.push_back(std::move(segments_.front()));
            segments_.pop_front();
        }
    }
    return ready;
}

bool SegmentedEncoder::ended() const {
    const Segment* last = segments_.empty() ? nullptr : segments_.front().get();
    while (last && last->ended && last->follower) {
        last = last->follower;
    }
    return !last || last->ended;
}

void SegmentedEncoder::deliver(const Ready& ready, const Sink& sink) {
    for (const PacketPtr& packet : ready.packets) {
        sink(*packet);
    }
    check(ready.error);
}

}  // namespace krv::media
