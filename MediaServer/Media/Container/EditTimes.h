#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/EditList.h>
#include <MediaServer/Media/Container/TimeRepair.h>

namespace krv::media {

/// Moves the video of every edit to the time at which the edit begins.
///
/// FFmpeg does so for the first edit only. The others come late by the time by which the codec reorders frames, so that
/// the video is behind the audio. How late an edit is shows when its earliest frame is known.
class EditTimes : public TimeRepair {
public:
    /// Returns whether the index of a stream shows that it has several edits that need this.
    [[nodiscard]] static bool areNeededFor(const AVStream& stream);

    /// Ignores tracks for which areNeededFor() is false.
    EditTimes(const AVFormatContext& format, const MovieEdits& edits);

    void push(PacketPtr packet, std::deque<PacketPtr>& ready) override;
    void finish(std::deque<PacketPtr>& ready) override;
    [[nodiscard]] std::optional<std::int64_t> stateAt(const AVPacket&) const override { return 0; }
    void restart(std::int64_t state) override;

private:
    struct Track {
        std::vector<std::int64_t> starts;  // of the edits, in units of the stream
        int needed = 1;                    // so many shown packets contain the earliest frame of an edit
        std::int64_t longest = 0;          // no edit is later than this, in units of the stream
        std::size_t edit = 0;              // the present one
        std::int64_t late = 0;             // by how much it is late
        bool steppedBack = false;          // the decoding time, since the latest shown packet
        std::optional<std::int64_t> lastDts{};
        bool measuring = false;  // until the earliest frame of the edit is known
        int shown = 0;           // packets since measuring began
        std::int64_t earliest = 0;
        std::vector<PacketPtr> held{};
    };
    static void take(Track& track, PacketPtr packet, std::deque<PacketPtr>& ready);
    static void takeShown(Track& track, PacketPtr packet, std::deque<PacketPtr>& ready);
    static void pass(const Track& track, PacketPtr packet, std::deque<PacketPtr>& ready);
    static void settle(Track& track, std::deque<PacketPtr>& ready);

    std::map<int, Track> tracks_;  // by index of the stream
};

}  // namespace krv::media
