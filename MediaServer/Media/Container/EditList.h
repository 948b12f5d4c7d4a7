#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <MediaServer/Media/Container/ReadAt.h>

namespace krv::media {

/// The edit lists of a movie in the QuickTime family of formats. FFmpeg applies them but does not report them.
struct MovieEdits {
    struct Track {
        std::uint32_t id = 0;
        /// Where each edit begins, in units of the movie's time scale, ascending from 0. Empty if the track has no edit
        /// list.
        std::vector<std::int64_t> starts;
    };
    std::uint32_t timeScale = 0;  ///< units per second; 0 if there is no movie header
    std::vector<Track> tracks;
};

/// Parses the contents of a "moov" box. Skips what is malformed. Pure.
[[nodiscard]] MovieEdits parseMovieEdits(std::span<const std::byte> movieBox);

/// Finds the "moov" box of a file and parses it. Returns an empty result if there is none, or if it is too large to be
/// plausible.
[[nodiscard]] MovieEdits readMovieEdits(const ReadAt& readAt, std::int64_t fileSize);

/// Where a track ends on the time of the movie.
struct TrackEnd {
    std::uint32_t id;
    double seconds;
};

/// Makes tracks end earlier: shortens the last edit of each in the contents of a "moov" box, without moving anything.
/// Does not change tracks without an edit list, and those that end earlier already. Pure.
void shortenTracks(std::span<std::byte> movieBox, std::span<const TrackEnd> ends);

/// Does so in a file. Returns false if it cannot be read or written.
[[nodiscard]] bool shortenTracks(int descriptor, std::span<const TrackEnd> ends);

}  // namespace krv::media
