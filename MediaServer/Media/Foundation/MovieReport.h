#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace krv::media {

/// A track of the source that the written movie does not have, or a property of a track that it has lost.
struct DroppedTrack {
    std::size_t source = 0;  ///< number of the source in a merge, from 0
    int index = -1;          ///< of the track; -1: what was dropped belongs to the whole movie
    /// "video", "audio", "subtitle", "data", "attachment" or "cover" for a track; "alpha", "stereo3D", "title",
    /// "language" or "flag" for a property of a track that was kept; "chapters" for those of the movie.
    std::string kind{};
    std::string codec{};     ///< FFmpeg's name, or a four-character code; may be empty
    std::string language{};  ///< the track's language tag; may be empty
    std::string reason{};    ///< for a person, such as "mp4 files cannot hold bitmap subtitles"
};

/// What is worth knowing about a movie that has been written.
struct MovieReport {
    /// For each source, where it ends because its file was cut off (see Source::truncatedAt()). Empty if it is whole.
    std::vector<std::optional<double>> truncatedAt{};
    std::vector<DroppedTrack> droppedTracks{};
};

}  // namespace krv::media
