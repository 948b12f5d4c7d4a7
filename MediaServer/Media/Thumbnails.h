#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Pictures of a movie, spread evenly over it: each in the middle of one of as many equal parts.
struct ThumbnailRequest {
    int source = -1;         ///< readable and seekable; not owned
    std::string sourcePath;  ///< for messages; its extension helps to recognise the format
    int destination = -1;    ///< open for writing; emptied first; receives the JPEG files one behind another; not owned
    std::string destinationPath;  ///< for messages
    int count = 0;                ///< at least 1
    double width = 0;             ///< of the box they are fitted into, in pixels; 0: free
    double height = 0;            ///< likewise
};

struct Thumbnail {
    double time = 0;          ///< in seconds from the movie's start
    std::int64_t offset = 0;  ///< where in the destination it begins
    std::int64_t length = 0;  ///< in bytes
};

/// Makes the pictures, as many threads at work as there are cores, and returns them in the order of their times. Each
/// is the picture that is shown at its time. Runs on the calling thread and threads of its own; one operation at a time
/// per process. Throws Failure or std::bad_alloc.
[[nodiscard]] std::vector<Thumbnail> makeThumbnails(const ThumbnailRequest& request, ProgressSink& sink);

}  // namespace krv::media
