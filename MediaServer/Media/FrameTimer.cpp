#include <MediaServer/Media/FrameTimer.h>
#include <algorithm>

namespace krv::media {

FrameTimer::FrameTimer(const Timing& timing)
    : timing_(timing) {}

void FrameTimer::push(FramePtr frame, const Sink& sink) {
    const std::int64_t duration = std::max<std::int64_t>(frame->pkt_duration, 0);
    std::int64_t time = 0;
    if (frame->pts != AV_NOPTS_VALUE) {
        time = av_rescale_q(frame->pts, timing_.source, timing_.encoder);
    } else if (held_) {
        const std::int64_t step = heldDuration_ > 0 ? heldDuration_ : timing_.typical;
        time = heldTime_ + std::max<std::int64_t>(1, av_rescale_q(step, timing_.source, timing_.encoder));
    }
    if (time < 0)
        return; // before the movie begins
    if (held_ && time <= heldTime_) {
        // Two pictures for one moment: at a constant rate the later one is nearer, else the first keeps its
        // place.
        if (timing_.constant && time == heldTime_)
            held_ = std::move(frame);
        return;
    }
    if (held_)
        emitUntil(time, sink);
    held_ = std::move(frame);
    heldTime_ = time;
    heldDuration_ = duration;
}

void FrameTimer::finish(const Sink& sink) {
    if (!held_)
        return;
    const std::int64_t shown = heldDuration_ > 0 ? heldDuration_ : timing_.typical;
    const std::int64_t length = av_rescale_q(shown, timing_.source, timing_.encoder);
    emitUntil(heldTime_ + std::max<std::int64_t>(1, length), sink);
    held_.reset();
}

void FrameTimer::emitUntil(std::int64_t next, const Sink& sink) {
    if (!timing_.constant) {
        held_->pts = heldTime_;
        held_->pkt_duration = next - heldTime_;
        return sink(std::move(held_));
    }
    const std::int64_t end = av_rescale_q(timing_.end, timing_.source, timing_.encoder);
    next = std::max(heldTime_ + 1, std::min(next, end));
    for (std::int64_t time = heldTime_; time < next; ++time) {
        FramePtr copy = reference(*held_);
        copy->pts = time;
        copy->pkt_duration = 1;
        sink(std::move(copy));
    }
}

} // namespace krv::media
