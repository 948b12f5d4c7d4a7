#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Whether a stream is a cover picture rather than a moving one.
[[nodiscard]] inline bool isCover(const AVStream& stream) noexcept {
    return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

/// The indices of the source's streams of a kind that can be used: covers, and those of which nothing is
/// known, are not among them.
[[nodiscard]] std::vector<std::size_t> usableStreams(const Source& source, AVMediaType kind);

/// The default one of these streams, else the first; nothing when there are none.
[[nodiscard]] std::optional<std::size_t> defaultOrFirst(const Source& source, const std::vector<std::size_t>& indices);

}  // namespace krv::media
