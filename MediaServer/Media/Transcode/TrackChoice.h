#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Which tracks a request keeps, by the indices of their streams.
struct TrackChoice {
    std::optional<std::vector<std::size_t>> audio;      ///< nothing: all
    std::optional<std::vector<std::size_t>> subtitles;  ///< nothing: all
    std::optional<std::size_t> burnIn;                  ///< the subtitles that are drawn into the video, not written

    /// Returns whether a track of a kind is kept.
    [[nodiscard]] bool keeps(AVMediaType kind, std::size_t index) const;
};

/// Finds the tracks that the settings of a request name. Throws Failure with UnsupportedSetting if the source does not
/// have one.
[[nodiscard]] TrackChoice chooseTracks(const Source& source, const Settings& video, const Settings& audio);

}  // namespace krv::media
