#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Sets the time and duration of every frame in units of the encoder. Times rise strictly.
///
/// Without a constant rate the source's timing stays as it is, variable or not. With a constant rate there is one frame
/// per tick. Frames of the source are repeated or dropped as needed, and none is more than half a tick from its time.
/// The timer holds back one frame, because its duration is known only when the next one arrives. Not thread-safe.
class FrameTimer {
public:
    using Sink = std::function<void(FramePtr)>;

    struct Timing {
        AVRational source;     ///< time base of the input frames
        AVRational encoder;    ///< time base of the output frames; the inverse of a constant rate
        bool constant;         ///< whether the output has a constant rate
        std::int64_t typical;  ///< duration of a frame whose duration is unknown, in source units
        std::int64_t end;      ///< no frame is shown beyond this time, in source units
    };

    explicit FrameTimer(const Timing& timing);

    void push(FramePtr frame, const Sink& sink);
    /// Makes the latest frame last until this time, in source units, if it would end before.
    void extendTo(std::int64_t time);
    void finish(const Sink& sink);

private:
    [[nodiscard]] std::int64_t toEncoder(std::int64_t time) const;
    void emitUntil(std::int64_t next, const Sink& sink);

    const Timing timing_;
    FramePtr held_;
    std::int64_t heldTime_ = 0;        // in encoder units
    std::int64_t heldSourceTime_ = 0;  // in source units
    std::int64_t heldDuration_ = 0;    // in source units
    bool emitted_ = false;
};

}  // namespace krv::media
