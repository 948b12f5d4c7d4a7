#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Corrects the times of the packets that a demuxer returns. Not thread-safe.
class TimeRepair {
public:
    TimeRepair() = default;
    virtual ~TimeRepair() = default;
    TimeRepair(const TimeRepair&) = delete;
    TimeRepair& operator=(const TimeRepair&) = delete;

    /// Takes a packet and appends to ready what can be used now, with its times corrected. A packet may be held back
    /// until later ones show what is wrong with its times. The packets of one stream keep their order.
    virtual void push(PacketPtr packet, std::deque<PacketPtr>& ready) = 0;
    /// Appends everything that is held back. For the end of the file.
    virtual void finish(std::deque<PacketPtr>& ready) = 0;
    /// Returns what restart() needs after a seek to this packet, which has been corrected. Empty if nothing can be read
    /// from there.
    [[nodiscard]] virtual std::optional<std::int64_t> stateAt(const AVPacket& packet) const = 0;
    /// Forgets all packets so far, for a seek. state: what stateAt() has returned for the packet there, or 0 for the
    /// beginning of the file.
    virtual void restart(std::int64_t state) = 0;
};

}  // namespace krv::media
