#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <MediaServer/Media/Container/ReadAt.h>

namespace krv::media {

/// Reading the boxes that files of the QuickTime family consist of.

using Bytes = std::span<const std::byte>;

/// The index of a two-hour movie takes a few megabytes.
inline constexpr std::int64_t kLargestMovieBox = std::int64_t{256} << 20;

/// Returns a big-endian number of up to 8 bytes. It must lie within the bytes.
[[nodiscard]] std::uint64_t numberIn(Bytes bytes, std::size_t offset, std::size_t size);

/// Writes a number in all of the bytes, big-endian.
void setNumber(std::span<std::byte> bytes, std::uint64_t value);

struct Box {
    std::string_view type;
    Bytes contents;
};

/// Removes the first box from a list and returns it. Returns nothing at the end of the list, and for a box that claims
/// to be longer than the list.
[[nodiscard]] std::optional<Box> takeBox(Bytes& list);

/// Returns the contents of the first box of this type.
[[nodiscard]] std::optional<Bytes> findBox(Bytes list, std::string_view type);

/// Returns the boxes that describe the samples of a track, given the contents of its box "trak".
[[nodiscard]] std::optional<Bytes> findSampleTables(Bytes track);

/// Where the contents of a box are in a file.
struct BoxPlace {
    std::int64_t offset;
    std::int64_t size;
};

/// Returns the first box of this type among those of the file itself, of which one begins at `from`.
[[nodiscard]] std::optional<BoxPlace> findTopLevelBox(std::string_view type, const ReadAt& readAt, std::int64_t from,
                                                      std::int64_t fileSize);

/// Returns the box "moov" of a file, unless it is larger than kLargestMovieBox.
[[nodiscard]] std::optional<BoxPlace> findMovieBox(const ReadAt& readAt, std::int64_t from, std::int64_t fileSize);

/// Returns the contents of that box, or nothing if it cannot be read.
[[nodiscard]] std::optional<std::vector<std::byte>> readMovieBox(const ReadAt& readAt, std::int64_t fileSize);

/// Returns the field after the two dates in the header of a movie (its time scale) or of a track (its ID). The header's
/// version determines the length of the dates.
[[nodiscard]] std::optional<std::uint32_t> fieldAfterDates(std::optional<Bytes> header);

}  // namespace krv::media
