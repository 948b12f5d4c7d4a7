#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <MediaServer/Media/Container/Boxes.h>

namespace krv::media {

/// Returns by how much samples of a track are presented later than they are decoded, in units of the track.
///
/// movieBox: contents of a "moov" box. samples: ascending numbers from 0. sampleCount: how many samples the track must
/// have; otherwise, and if the tables are malformed, returns nothing. A track that says nothing presents each sample
/// when it is decoded. Pure.
[[nodiscard]] std::optional<std::vector<std::int64_t>> compositionOffsets(Bytes movieBox, std::uint32_t trackID,
                                                                          std::span<const std::size_t> samples,
                                                                          std::size_t sampleCount);

}  // namespace krv::media
