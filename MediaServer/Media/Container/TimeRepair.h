#pragma once

#include <deque>

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
    /// Drops everything that is held back. For a seek, after which times are not compared with earlier ones.
    virtual void reset() = 0;
};

}  // namespace krv::media
