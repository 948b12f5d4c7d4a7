#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Thumbnails of a movie, spread evenly over it. The movie is divided into count equal parts, and each thumbnail shows
/// the middle of one.
struct ThumbnailRequest {
    int source = -1;         ///< readable and seekable; borrowed
    std::string sourcePath;  ///< its extension helps to recognise the format
    int destination = -1;    ///< open for writing; truncated first; receives the JPEG files one after another; borrowed
    int count = 0;           ///< at least 1
    double width = 0;        ///< of the box that they are fitted into, in pixels; 0: no limit
    double height = 0;       ///< likewise
};

struct Thumbnail {
    double time = 0;          ///< in seconds from the movie's start
    std::int64_t offset = 0;  ///< where in the destination it begins
    std::int64_t length = 0;  ///< in bytes
};

struct ThumbnailSet {
    std::vector<Thumbnail> pictures;    ///< in the order of their times
    std::optional<double> truncatedAt;  ///< see Source::truncatedAt()
};

/// Makes the thumbnails. Each one is the frame that is shown at its time.
/// Runs on the calling thread and threads of its own, as many as there are cores, one operation at a time per process.
/// Throws Failure or std::bad_alloc.
[[nodiscard]] ThumbnailSet makeThumbnails(const ThumbnailRequest& request, ProgressSink& sink);

}  // namespace krv::media
