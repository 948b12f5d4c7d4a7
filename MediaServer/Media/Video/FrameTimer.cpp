#include <algorithm>

#include <MediaServer/Media/Video/FrameTimer.h>

namespace krv::media {

FrameTimer::FrameTimer(const Timing& timing)
    : timing_(timing) {}

void FrameTimer::push(FramePtr frame, const Sink& sink) {
    const std::int64_t duration = frame->pkt_duration > 0 ? frame->pkt_duration : timing_.typical;
    const std::int64_t unknown = held_ ? heldSourceTime_ + heldDuration_ : 0;
    const std::int64_t sourceTime = frame->pts == AV_NOPTS_VALUE ? unknown : frame->pts;
    const std::int64_t time = toEncoder(sourceTime);
    if (time < 0) {
        return;  // before the start of the movie
    }
    if (held_) {
        // Two frames have the same time. At a constant rate the later one is nearer; otherwise the first one stays.
        const bool replaces = timing_.constant && time == heldTime_;
        if (time <= heldTime_ && !replaces) {
            return;
        }
        if (!replaces) {
            emitUntil(time, sink);
        }
    }
    held_ = std::move(frame);
    heldTime_ = time;
    heldSourceTime_ = sourceTime;
    heldDuration_ = duration;
}

void FrameTimer::extendTo(std::int64_t time) {
    heldDuration_ = std::max(heldDuration_, time - heldSourceTime_);
}

void FrameTimer::finish(const Sink& sink) {
    if (!held_) {
        return;
    }
    // If the next tick is the end of the movie, another frame would make the movie longer.
    const std::int64_t end = toEncoder(std::min(heldSourceTime_ + heldDuration_, timing_.end));
    if (end > heldTime_ || !emitted_ || !timing_.constant) {
        emitUntil(std::max(end, heldTime_ + 1), sink);
    }
    held_.reset();
}

std::int64_t FrameTimer::toEncoder(std::int64_t time) const {
    return av_rescale_q(time, timing_.source, timing_.encoder);
}

void FrameTimer::emitUntil(std::int64_t next, const Sink& sink) {
    emitted_ = true;
    if (!timing_.constant) {
        held_->pts = heldTime_;
        held_->pkt_duration = next - heldTime_;
        return sink(std::move(held_));
    }
    next = std::max(heldTime_ + 1, std::min(next, toEncoder(timing_.end)));
    for (std::int64_t time = heldTime_; time < next; ++time) {
        FramePtr copy = reference(*held_);
        copy->pts = time;
        copy->pkt_duration = 1;
        sink(std::move(copy));
    }
}

}  // namespace krv::media
