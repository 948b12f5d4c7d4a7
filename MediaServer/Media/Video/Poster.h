#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// The largest cover in bytes that is passed on as it is. A larger one is encoded again.
inline constexpr std::size_t kLargestCover = std::size_t{8} << 20;

/// Returns the poster of a movie as JPEG, or nothing if the movie has none.
///
/// The poster is the cover art if there is any. Otherwise it is the first frame worth showing, which is neither nearly
/// black nor uniform. The search covers the first tenth of the movie, then twenty frames spread over it, then its key
/// frames. If it fails, the poster is the brightest frame that was examined. The source may be at any position, and the
/// position afterwards is undefined. Throws Failure.
[[nodiscard]] std::vector<std::uint8_t> makePoster(Source& source, Progress& progress);

/// Returns whether a movie has cover art.
[[nodiscard]] bool hasCover(const Source& source) noexcept;

/// Statistics of a frame that tell whether it is worth showing.
struct FrameStatistics {
    double brightness = 0;  ///< mean of the grey values, 0 (black) to 255
    double contrast = 0;    ///< their standard deviation
    double visible = 0;     ///< the part of the frame that is not nearly black, 0 to 1

    [[nodiscard]] bool worthShowing() const noexcept;
};

/// Computes the statistics. Throws Failure with InternalError if the pixel format cannot be scaled.
[[nodiscard]] FrameStatistics statisticsOf(const AVFrame& frame);

}  // namespace krv::media
