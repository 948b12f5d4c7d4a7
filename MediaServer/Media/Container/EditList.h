#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace krv::media {

/// The edits of a movie in the QuickTime family of formats, which FFmpeg applies but does not tell.
struct MovieEdits {
    struct Track {
        std::uint32_t id = 0;
        /// Where each edit begins, in units of the movie's time scale, ascending from 0. A track without an edit list
        /// has none.
        std::vector<std::int64_t> starts;
    };
    std::uint32_t timeScale = 0;  ///< units per second; 0 when there is no movie header
    std::vector<Track> tracks;
};

/// Reads the contents of a "moov" box. Whatever is malformed is left out. Pure.
[[nodiscard]] MovieEdits parseMovieEdits(std::span<const std::byte> movieBox);

/// Finds the "moov" box of a file and parses it. An empty result when there is none, or none of sane size. readAt fills
/// the bytes and returns false when they cannot all be read.
using ReadAt = std::function<bool(std::int64_t offset, std::span<std::byte> bytes)>;
[[nodiscard]] MovieEdits readMovieEdits(const ReadAt& readAt, std::int64_t fileSize);

}  // namespace krv::media
