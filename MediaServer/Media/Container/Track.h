#pragma once

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Carries one stream of the source into the output: copies, converts or encodes it.
///
/// The container's header describes every stream, but some properties of a stream are known only when its first frame
/// has been decoded. Therefore a track works in two stages. First, packets are pushed until it is ready(). Then open()
/// adds the output stream of every track, the header is written, and the remaining packets are pushed. finish() ends
/// the second stage. Not thread-safe.
class Track {
public:
    Track() = default;
    virtual ~Track() = default;
    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    /// Returns whether enough is known for open(). A track that is still not ready at the end of the source is opened
    /// nevertheless.
    [[nodiscard]] virtual bool ready() const = 0;
    /// Receives a packet of the source, its times on the movie's own time in units of the source stream. May take the
    /// packet's data and leave anything in it. Before open() it may be called only until ready() returns true.
    virtual void push(AVPacket& packet) = 0;
    /// Adds the stream to the output. Throws Failure.
    virtual void open(OutputFile& output) = 0;
    /// Returns which part of the packets so far has reached the output, in 0…1.
    [[nodiscard]] virtual double done() const { return 1; }
    /// Writes everything that is still buffered. Packets must not follow.
    virtual void finish() = 0;
};

}  // namespace krv::media
