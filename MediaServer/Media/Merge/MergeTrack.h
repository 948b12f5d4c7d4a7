#pragma once

#include <cstdint>

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The part that one source contributes to a track of the merged movie.
struct MergePart {
    const AVStream* from;  ///< valid until end(); null if the source has no such track
    std::int64_t start;    ///< in microseconds of the merged movie's time
    std::int64_t end;
    bool isFirst;
    bool isLast;
};

/// Carries one track of all sources into the merged movie. Call open() first, then for each source begin(), push() and
/// hold() as often as needed, and end(). Call finish() last. Not thread-safe.
class MergeTrack {
public:
    MergeTrack() = default;
    virtual ~MergeTrack() = default;
    MergeTrack(const MergeTrack&) = delete;
    MergeTrack& operator=(const MergeTrack&) = delete;

    /// Adds the stream to the output. Throws Failure.
    virtual void open(OutputFile& output) = 0;
    virtual void begin(const MergePart& part) = 0;
    /// Receives a packet of the source, its times on the source's own time. Drops what lies outside the part.
    virtual void push(const AVPacket& packet) = 0;
    /// Extends the track by silence or by its last frame, because the source has no more packets for it. time: up to
    /// where, in microseconds of the merged movie's time. Later packets of the source are ignored.
    virtual void hold(std::int64_t time) = 0;
    /// Ends the source. Throws Failure with Damaged if it had packets and none could be decoded.
    virtual void end() = 0;
    virtual void finish() = 0;
};

}  // namespace krv::media
