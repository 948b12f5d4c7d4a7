#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// A search for the times to which a person would seek in a movie.
struct InterestingTimesRequest {
    int source = -1;         ///< readable and seekable; borrowed
    std::string sourcePath;  ///< its extension helps to recognise the format
    /// Index of a track, to find only its times: its key frames, or the edits of an audio track.
    std::optional<std::int64_t> track;
};

struct InterestingTimes {
    /// From the movie's start, in units of the time scale. Ascending, without duplicates.
    std::vector<std::int64_t> values;
    std::int32_t timescale = 1;         ///< units per second; that of the track, so that values are exact
    std::optional<double> truncatedAt;  ///< see Source::truncatedAt()
};

/// Returns the start, every key frame of the main video track, every chapter start and every edit; or the times of one
/// track.
///
/// Decodes nothing. Takes the times from the container's index if there is one, without reading the packets; otherwise
/// reads the file once. Runs on the calling thread. Throws Failure, with NoSuchTrack for a track that does not exist,
/// or std::bad_alloc.
[[nodiscard]] InterestingTimes interestingTimes(const InterestingTimesRequest& request, ProgressSink& sink);

}  // namespace krv::media
