#pragma once

#include <cstdint>
#include <vector>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Merge/MergeSurvey.h>

namespace krv::media {

/// One track of the merged movie.
struct PlannedTrack {
    AVMediaType kind;
    /// The track of each source that it is made of; null where a source has none.
    std::vector<const TrackSurvey*> parts;
    std::size_t model;     ///< the first source that has one: its format is the format of all
    const Codec* codec{};  ///< what all is encoded with; null: it is copied
};

/// How the sources are laid out on the time of the merged movie, and what becomes of their tracks.
struct MergePlan {
    std::vector<PlannedTrack> tracks;  ///< video before audio
    AVRational tick;                   ///< seconds: how long a picture is shown, or a sample, if there is only sound
    /// Where each source begins, and where the last one ends, in ticks.
    std::vector<std::int64_t> boundaries;

    [[nodiscard]] std::int64_t boundary(std::size_t index) const;  ///< in microseconds
    [[nodiscard]] bool encodes() const;
};

/// sources: one or more; they outlive the plan. Throws Failure with NoAudioTrack if the container is one for
/// sound and there is none.
[[nodiscard]] MergePlan planMerge(const std::vector<SourceSurvey>& sources, const Container& container,
                                  bool useShortest);

}  // namespace krv::media
