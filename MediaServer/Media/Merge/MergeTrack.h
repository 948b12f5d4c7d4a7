#pragma once

#include <cstdint>

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// One source on one track of a merged movie.
struct MergePart {
    const AVStream* from;  ///< lives until end(); null if the source has no such track
    std::int64_t start;    ///< microseconds on the merged movie's time
    std::int64_t end;
    bool isFirst;
    bool isLast;
};

/// The way of one track of a merged movie: of all sources, one after another, into the output. open(), then
/// for each source begin(), push() and hold() as often as needed, and end(); then finish(). One thread.
class MergeTrack {
public:
    MergeTrack() = default;
    virtual ~MergeTrack() = default;
    MergeTrack(const MergeTrack&) = delete;
    MergeTrack& operator=(const MergeTrack&) = delete;

    /// Adds the stream to the output. Throws Failure.
    virtual void open(OutputFile& output) = 0;
    virtual void begin(const MergePart& part) = 0;
    /// A packet of the source, its times on the source's own time. What lies outside of the part is left out.
    virtual void push(const AVPacket& packet) = 0;
    /// Nothing more comes from the source: until this time, in microseconds on the merged movie's, silence or
    /// the last picture can be written. Packets that come all the same are ignored.
    virtual void hold(std::int64_t time) = 0;
    /// The source is at its end. Throws Failure with Damaged if it had packets and none could be decoded.
    virtual void end() = 0;
    virtual void finish() = 0;
};

}  // namespace krv::media
