#pragma once

#include <cstdint>
#include <vector>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Merge/MergeSurvey.h>

namespace krv::media {

/// What a request asks of a merge. Already checked.
struct MergeWishes {
    bool useShortest = false;
    AVRational rate{0, 1};  ///< frames per second; 0: that of the sources
    int width = 0;          ///< of upright frames, in square pixels; 0: that of the sources
    int height = 0;
};

/// One track of the merged movie.
struct PlannedTrack {
    AVMediaType kind;
    /// Its track in each source; null if a source has none.
    std::vector<const TrackSurvey*> parts;
    std::size_t model;     ///< the first source that has such a track, which determines the format
    const Codec* codec{};  ///< the codec that all sources are encoded with; null: the track is copied
    bool converts{};       ///< of subtitles: they are converted to the container's format
};

/// The positions of the sources in the merged movie, and what is done with their tracks.
struct MergePlan {
    std::vector<PlannedTrack> tracks;  ///< video before audio, subtitles last
    AVRational tick;                   ///< duration of a frame in seconds, or of a sample if there is only audio
    /// Where each source begins and where the last one ends, in ticks.
    std::vector<std::int64_t> boundaries;

    /// Returns a boundary in microseconds.
    [[nodiscard]] std::int64_t boundary(std::size_t index) const;
    /// Returns whether any track is encoded.
    [[nodiscard]] bool encodes() const;
};

/// Plans a merge. sources: one or more, which must outlive the plan. Throws Failure with NoAudioTrack if the container
/// is for audio and no source has any.
[[nodiscard]] MergePlan planMerge(const std::vector<SourceSurvey>& sources, const Container& container,
                                  const MergeWishes& wishes);

}  // namespace krv::media
