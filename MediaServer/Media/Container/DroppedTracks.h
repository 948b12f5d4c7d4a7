#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/MovieReport.h>

namespace krv::media {

/// Lists what a source has and a movie in another container does not. Not thread-safe.
class DroppedTracks {
public:
    /// Both references must outlive this object. number: of the source in a merge.
    DroppedTracks(const Source& source, const Container& container, std::size_t number = 0);

    /// Adds a stream that is not carried over. An empty reason stands for the obvious one: the container cannot hold
    /// such a track. Ignores streams that the muxer creates by itself: time codes and titles of chapters.
    void add(std::size_t stream, std::string reason = {});

    /// Adds the properties of a stream that is carried over, but that the container cannot store: title, language,
    /// flags, stereoscopic layout.
    void addLostProperties(std::size_t stream);

    /// Add the transparency of a stream that is encoded by an encoder without it, or copied to a container without it.
    /// Do nothing if it is not lost. An empty reason stands for the obvious one: the encoder does not support it.
    void addEncodedAlpha(std::size_t stream, std::string reason = {});
    void addCopiedAlpha(std::size_t stream);

    /// Adds the channels of a stream of which the encoder keeps so many. Does nothing if these are all.
    void addLostChannels(std::size_t stream, int kept);

    /// Adds the chapters if the source has some and the container cannot store them.
    void addChapters();

    [[nodiscard]] std::vector<DroppedTrack> take() { return std::move(list_); }

private:
    void add(std::size_t stream, std::string kind, std::string reason);
    [[nodiscard]] std::string defaultReason(std::size_t stream) const;

    const Source& source_;
    const Container& container_;
    const std::size_t number_;
    std::vector<DroppedTrack> list_;
};

}  // namespace krv::media
