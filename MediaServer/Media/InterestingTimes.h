#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Where a person would want to seek in a movie.
struct InterestingTimesRequest {
    int source = -1;         ///< readable and seekable; not owned
    std::string sourcePath;  ///< for messages; its extension helps to recognise the format
    /// Index of the stream whose times alone are wanted: the key frames, or for audio the edits.
    std::optional<std::int64_t> track;
};

struct InterestingTimes {
    /// From the movie's start, in units of the time scale; ascending, no two the same.
    std::vector<std::int64_t> values;
    std::int32_t timescale = 1;  ///< units per second: those of the track, so that values are exact
};

/// The start, every key frame of the first video track, every chapter start and every edit; or those of one track.
///
/// Nothing is decoded. Where the container has an index the times are taken from it and the packets are not read;
/// otherwise the file is read once. Runs on the calling thread. Throws Failure, with NoSuchTrack for a track that
/// does not exist, or std::bad_alloc.
[[nodiscard]] InterestingTimes interestingTimes(const InterestingTimesRequest& request, ProgressSink& sink);

}  // namespace krv::media
