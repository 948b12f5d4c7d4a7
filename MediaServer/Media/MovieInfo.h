#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>
#include <MediaServer/Media/MovieContents.h>
#include <MediaServer/Media/Video/StillPicture.h>

namespace krv::media {

struct MovieInfoRequest {
    int source = -1;         ///< readable and seekable; borrowed
    std::string sourcePath;  ///< its extension helps to recognise the format
};

/// The description of a movie. Fields that do not apply or are unknown are empty.
struct MovieInfo {
    std::string codecs;                 ///< of the main video and audio track: "H.264, AAC"
    std::optional<double> duration;     ///< in seconds
    std::optional<Extent> dimensions;   ///< as displayed
    std::string audio;                  ///< "AAC, 48000 Hz, stereo"
    std::optional<double> created;      ///< in seconds since 1970, from the movie's own metadata
    std::optional<double> frameRate;    ///< average, in frames per second
    std::vector<std::uint8_t> poster;   ///< JPEG; empty if the movie has no poster
    std::optional<double> truncatedAt;  ///< see Source::truncatedAt()
    MovieContents contents;
};

/// Reads the headers, and decodes as many frames as it takes to find a poster (see Poster.h). A movie whose video
/// cannot be decoded has no poster, which is not a failure. Runs on the calling thread, one operation at a time per
/// process. Throws Failure or std::bad_alloc.
[[nodiscard]] MovieInfo movieInfo(const MovieInfoRequest& request, ProgressSink& sink);

}  // namespace krv::media
