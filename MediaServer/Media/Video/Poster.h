#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// The one picture that stands for a movie, as JPEG; empty when none can be had.
///
/// Cover art if there is any. Else the first picture that is worth looking at (neither nearly black nor all the same)
/// within the first tenth of the movie, else among twenty spread over it, else among its key frames, else the brightest
/// of all that were looked at. The source may be anywhere in the movie, before and afterwards. Throws Failure.
[[nodiscard]] std::vector<std::uint8_t> makePoster(Source& source, Progress& progress);

[[nodiscard]] bool hasCover(const Source& source) noexcept;

/// How a picture looks from afar.
struct Look {
    double brightness = 0;  ///< mean of the grey values, 0 (black) to 255
    double contrast = 0;    ///< their standard deviation
    double visible = 0;     ///< the part of the picture that is not nearly black, 0 to 1

    [[nodiscard]] bool worthShowing() const noexcept;
};

/// Throws Failure when the picture's format is not known.
[[nodiscard]] Look lookAt(const AVFrame& frame);

}  // namespace krv::media
