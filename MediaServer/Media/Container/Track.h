#pragma once

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The way of one stream from the source into the output.
///
/// The container's header needs to know every stream, but what a stream is shows only when its first frame
/// has been decoded. So a track lives in two parts: packets are pushed until it is ready(); then, for all
/// tracks, open() adds the output stream; after the header is written packets are pushed again, and finish()
/// ends it. One thread.
class Track {
public:
    Track() = default;
    virtual ~Track() = default;
    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    /// Whether enough is known for open(). A track that never gets ready may be opened all the same.
    [[nodiscard]] virtual bool ready() const = 0;
    /// A packet of the source, its times on the movie's own time in units of the source stream. Before open()
    /// only while not ready().
    virtual void push(const AVPacket& packet) = 0;
    /// Adds the stream to the output. Throws Failure.
    virtual void open(OutputFile& output) = 0;
    /// No packets will follow: everything that is still inside is written.
    virtual void finish() = 0;
};

}  // namespace krv::media
