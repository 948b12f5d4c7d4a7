#include <algorithm>
#include <utility>

#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Video/FrameRate.h>
#include <MediaServer/Media/Video/FrameReader.h>

namespace krv::media {
namespace {

/// Without an index, decoding on is faster than seeking if the time is at most this far ahead.
constexpr std::int64_t kClose = 2 * static_cast<std::int64_t>(AV_TIME_BASE);

/// The first step back if the frame is not found. Each further step is four times as long.
constexpr std::int64_t kFirstStepBack = AV_TIME_BASE;

std::size_t requireVideo(const Source& source) {
    if (const auto index = mainVideoStream(source)) {
        return *index;
    }
    throw Failure({.cause = FailureCause::NoVideoTrack});
}

}  // namespace

std::optional<std::size_t> mainVideoStream(const Source& source) {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        const AVStream& stream = source.stream(i);
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover(stream) &&
            avcodec_find_decoder(stream.codecpar->codec_id)) {
            found.push_back(i);
        }
    }
    return defaultOrFirst(source, found);
}

FrameReader::FrameReader(Source& source, int threads)
    : source_(source)
    , index_(requireVideo(source_))
    , decoder_(source_.stream(index_), threads)
    , duration_(source_.duration())
    , frameLength_(std::max<std::int64_t>(1, av_rescale_q(1, av_inv_q(frameRate(source_, stream())), kMicroseconds)))
    , expected_(source_.start()) {
    source_.select({index_});
}

std::int64_t FrameReader::duration() {
    if (duration_ > 0) {
        return duration_;
    }
    const PacketPtr packet = newPacket();
    std::int64_t packets = 0;
    std::int64_t end = 0;
    const AVRational unit = stream().time_base;
    for (; source_.read(*packet); ++packets) {
        if (packet->pts != AV_NOPTS_VALUE) {
            end = std::max(end, av_rescale_q(packet->pts + packet->duration, unit, kMicroseconds));
        }
    }
    duration_ = std::max({end - source_.start(), packets * frameLength_, frameLength_});
    seekTo(source_.start());
    return duration_;
}

void FrameReader::onlyKeyFrames(bool only) {
    onlyKeyFrames_ = only;
}

void FrameReader::seekTo(std::int64_t time) {
    // A format that is not seekable is read on from its current position, which is the beginning at first.
    if (time <= source_.start() || !source_.seek(index_, time)) {
        (void)source_.rewind();
    }
    decoder_.flush();
    decoded_.clear();
    shown_.reset();
    skipped_.reset();
    ended_ = false;
    expected_ = std::max(time, source_.start());
}

// Returns which frames the decoder should leave out if they are in this packet.
AVDiscard FrameReader::skippedOf(const AVPacket& packet) {
    if (onlyKeyFrames_) {
        return AVDISCARD_NONKEY;
    }
    if (!skipUntil_ || packet.pts == AV_NOPTS_VALUE) {
        return AVDISCARD_DEFAULT;
    }
    const std::int64_t time = av_rescale_q(packet.pts, stream().time_base, kMicroseconds);
    const std::int64_t length = av_rescale_q(packet.duration, stream().time_base, kMicroseconds);
    if (time + (length > 0 ? length : frameLength_) > *skipUntil_) {
        return AVDISCARD_DEFAULT;
    }
    skipped_ = std::max(skipped_.value_or(time), time);
    return AVDISCARD_NONREF;
}

void FrameReader::decodeMore() {
    const auto keep = [this](FramePtr frame) {
        frame->pts =
            frame->pts == AV_NOPTS_VALUE ? expected_ : av_rescale_q(frame->pts, stream().time_base, kMicroseconds);
        expected_ = frame->pts + frameLength_;
        decoded_.push_back(std::move(frame));
    };
    const PacketPtr packet = newPacket();
    while (decoded_.empty() && !ended_) {
        if (source_.read(*packet)) {
            if (!onlyKeyFrames_ || (packet->flags & AV_PKT_FLAG_KEY) != 0) {
                decoder_.context().skip_frame = skippedOf(*packet);
                decoder_.push(*packet, keep);
            }
        } else {
            decoder_.finish(keep);
            ended_ = true;
        }
    }
}

FramePtr FrameReader::next() {
    decodeMore();
    if (decoded_.empty()) {
        return nullptr;
    }
    FramePtr frame = std::move(decoded_.front());
    decoded_.pop_front();
    return frame;
}

// Returns whether decoding on is the fastest way to the time, because there is no key frame between here and there.
bool FrameReader::isOnTheWay(std::int64_t time) const {
    if (!shown_ || time < shown_->pts) {
        return false;
    }
    auto& indexed = const_cast<AVStream&>(stream());  // the functions only read it
    const std::int64_t there = av_rescale_q(time - source_.timeShift(), kMicroseconds, indexed.time_base);
    const int key = av_index_search_timestamp(&indexed, there, AVSEEK_FLAG_BACKWARD);
    if (key < 0 || avformat_index_get_entry(&indexed, key) == nullptr) {
        return time - shown_->pts <= kClose;
    }
    const std::int64_t keyTime =
        av_rescale_q(avformat_index_get_entry(&indexed, key)->timestamp, indexed.time_base, kMicroseconds) +
        source_.timeShift();
    return keyTime <= shown_->pts;
}

// Returns the last frame that begins no later than the time, or else the first later one.
FramePtr FrameReader::lastUntil(std::int64_t time) {
    for (;;) {
        decodeMore();
        if (decoded_.empty()) {
            return shown_ ? reference(*shown_) : nullptr;
        }
        if (decoded_.front()->pts > time) {
            return reference(shown_ ? *shown_ : *decoded_.front());
        }
        shown_ = std::move(decoded_.front());
        decoded_.pop_front();
    }
}

// Does what lastUntil() does without decoding what no other frame refers to. Returns null if a frame may have been left
// out that is shown after the one that was found: lengths of packets may be wrong.
FramePtr FrameReader::lastUntilInHaste(std::int64_t time) {
    skipUntil_ = time;
    FramePtr frame = lastUntil(time);
    skipUntil_.reset();
    return frame && skipped_ && *skipped_ > frame->pts ? nullptr : std::move(frame);
}

FramePtr FrameReader::shownFrom(std::int64_t from, std::int64_t time) {
    seekTo(from);
    if (FramePtr frame = lastUntilInHaste(time)) {
        return frame;
    }
    seekTo(from);
    return lastUntil(time);
}

FramePtr FrameReader::shownAt(std::int64_t time) {
    const std::int64_t start = source_.start();
    if (isOnTheWay(time)) {
        if (FramePtr frame = lastUntilInHaste(time)) {
            return frame;
        }
    }
    std::int64_t from = std::max(time, start);
    for (std::int64_t step = kFirstStepBack;; step *= 4) {
        FramePtr frame = shownFrom(from, time);
        if (from <= start || (frame && frame->pts <= time)) {
            return frame;
        }
        from = std::max(start, time - step);
    }
}

}  // namespace krv::media
