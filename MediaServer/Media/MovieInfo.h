#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>
#include <MediaServer/Media/Video/StillPicture.h>

namespace krv::media {

struct MovieInfoRequest {
    int source = -1;         ///< readable and seekable; not owned
    std::string sourcePath;  ///< for messages; its extension helps to recognise the format
};

/// What a movie is. What does not apply to it, or cannot be found out, is absent.
struct MovieInfo {
    std::string codecs;                ///< of the main video and audio track: "H.264, AAC"
    std::optional<double> duration;    ///< in seconds
    std::optional<Extent> dimensions;  ///< as shown
    std::string audio;                 ///< "AAC, 48000 Hz, stereo"
    std::optional<double> created;     ///< in seconds since 1970, by the movie's own account
    std::optional<double> frameRate;   ///< average, in pictures per second
    std::vector<std::uint8_t> poster;  ///< JPEG; empty when there is nothing to see
};

/// Reads the headers, and as many pictures as it takes to find a poster (see Poster.h). Runs on the calling thread; one
/// operation at a time per process. Throws Failure or std::bad_alloc. A movie whose pictures
/// cannot be decoded has no poster, which is no failure.
[[nodiscard]] MovieInfo movieInfo(const MovieInfoRequest& request, ProgressSink& sink);

/// What people call a codec: "H.264", "MPEG-2", "PCM". Pure.
[[nodiscard]] std::string displayName(AVCodecID codec);

}  // namespace krv::media
