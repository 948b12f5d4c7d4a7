#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Gives every picture its time and how long it is shown, in units of the encoder, both rising strictly.
///
/// Without a rate the source's own timing stays as it is, variable or not. With a rate there is a picture at
/// every tick: the source's pictures are repeated and left out as needed, so that none is more than half a
/// tick from its time. It holds one picture back, because only the next one tells how long it is shown. One
/// thread.
class FrameTimer {
public:
    using Sink = std::function<void(FramePtr)>;

    struct Timing {
        AVRational source;     ///< unit of the pictures that come in
        AVRational encoder;    ///< unit of those that go out; with a rate, its inverse
        bool constant;         ///< whether there is a rate
        std::int64_t typical;  ///< how long a picture is shown if nothing else is known, in source units
        std::int64_t end;      ///< no picture is repeated beyond this time, in source units
    };

    explicit FrameTimer(const Timing& timing);

    void push(FramePtr frame, const Sink& sink);
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
