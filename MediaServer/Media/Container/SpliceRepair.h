#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/TimeRepair.h>

namespace krv::media {

/// Makes one timeline of a recording whose clock jumps in the middle, as it does where two recordings were joined byte
/// by byte.
///
/// After a jump all streams are moved by the same time, so they stay in sync. That time is chosen so that the main
/// stream (video, or else audio) goes on where it was. If another stream shows the jump first, its packets are held
/// back until the main stream does. Each stream is moved from its own jump on, because a stream may still have packets
/// of the part before when another one has arrived in the part after it. Audio that overlaps the part before is
/// dropped.
class SpliceRepair : public TimeRepair {
public:
    /// Borrows the format. The main stream is chosen among those that are not discarded at the first packet.
    explicit SpliceRepair(const AVFormatContext& format);

    void push(PacketPtr packet, std::deque<PacketPtr>& ready) override;
    void finish(std::deque<PacketPtr>& ready) override;
    /// Returns by how much the packet has been moved, in microseconds.
    [[nodiscard]] std::optional<std::int64_t> stateAt(const AVPacket& packet) const override;
    void restart(std::int64_t state) override;

private:
    /// The part of the recording that a stream is in, and where it has come to.
    struct Track {
        std::size_t part = 0;
        std::optional<std::int64_t> last{};  // decoding time in the file, in microseconds
        std::int64_t end = 0;                // of the latest frame, on the timeline
        bool entersPart = false;             // until a packet of the present part has been used
    };
    [[nodiscard]] const AVStream& streamOf(const AVPacket& packet) const;
    [[nodiscard]] Track& trackOf(const AVPacket& packet);
    void chooseMain();
    [[nodiscard]] bool isHeld(int stream) const;
    void take(PacketPtr packet, std::deque<PacketPtr>& ready);
    void hold(PacketPtr packet, std::deque<PacketPtr>& ready);
    void releaseHeld(std::deque<PacketPtr>& ready);
    [[nodiscard]] bool enterKnownPart(Track& track, std::int64_t time) const;
    void beginPart(const AVPacket& packet);
    [[nodiscard]] std::size_t nearestPart(std::int64_t time) const;
    void move(PacketPtr packet, std::size_t part, std::deque<PacketPtr>& ready) const;

    const AVFormatContext& format_;
    std::vector<Track> tracks_;
    std::optional<std::size_t> main_;
    std::vector<std::int64_t> offsets_{0};  // of the parts
    std::deque<PacketPtr> held_;
    std::int64_t heldBytes_ = 0;
};

}  // namespace krv::media
