#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include <MediaServer/Media/Container/ReadAt.h>

namespace krv::media {

/// The index of a movie in the QuickTime family of formats ("moov"), which says where each sample is in the file.

/// Returns the size of a file's index without the tracks that are not among those with these IDs, or 0 if the file has
/// none.
[[nodiscard]] std::int64_t indexSize(const ReadAt& readAt, std::int64_t fileSize, std::span<const int> trackIDs);

/// Adds a distance to every place of samples in the contents of a "moov" box. Returns false if one of them does not fit
/// in its field any more; the box is useless then. Pure.
[[nodiscard]] bool moveChunks(std::span<std::byte> movieBox, std::int64_t distance);

/// A place in front of the samples of a movie that is being written. `at` is where the samples would begin otherwise.
struct IndexRoom {
    std::int64_t at = 0;
    std::int64_t size = 0;
};

/// Moves the index of a file from its end to the room, for which the samples are where they are, but have been numbered
/// as if there were no room. If the index does not fit, moves the samples as well and calls moved after each part with
/// the number of bytes. Returns 0, or the error number of a transfer. Throws Failure InternalError if the file has no
/// index at its end or is too large for it.
[[nodiscard]] int moveIndexToFront(int descriptor, const IndexRoom& room,
                                   const std::function<void(std::int64_t bytes)>& moved);

}  // namespace krv::media
