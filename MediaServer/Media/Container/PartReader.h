#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Reads the packets of a part of a movie: those that are played in it, and those that decoders need before. If the source
/// is not restricted to a part, reads the whole movie. Times are those of the source, so they are negative before the part.
///
/// Video begins with the last key frame at or before the part, audio a moment before it. A frame after the part is
/// returned only if frames within it depend on it. Its time is then the end of the part, and its duration 0. Subtitles
/// are shortened to what lies within the part. Not thread-safe.
class PartReader {
public:
    /// Selects these streams.
    PartReader(Source& source, const std::vector<std::size_t>& indices);

    /// Reads the next packet. Returns false at the end of the part.
    [[nodiscard]] bool read(AVPacket& packet);

private:
    struct Numbered {
        std::int64_t number;
        PacketPtr packet;
    };
    struct Stream {
        std::deque<Numbered> before;   // packets so far that may be needed
        std::vector<PacketPtr> after;  // frames after the part
        bool begun = false;            // a packet within the part has been read
        bool ended = false;
    };

    void approach();
    void keep(Stream& stream, const AVPacket& packet, std::int64_t number);
    [[nodiscard]] bool next(AVPacket& packet);
    /// Returns whether the packet belongs to the part. Delays frames after it.
    [[nodiscard]] bool admit(AVPacket& packet);
    [[nodiscard]] bool clipSubtitle(AVPacket& packet) const;
    [[nodiscard]] bool allEnded() const;
    [[nodiscard]] AVMediaType kindOf(const AVPacket& packet) const;
    [[nodiscard]] std::int64_t inStream(const AVPacket& packet, std::int64_t microseconds) const;

    Source& source_;
    std::map<int, Stream> streams_;  // of video and audio, and of subtitles before the part
    std::deque<PacketPtr> queued_;
};

}  // namespace krv::media
