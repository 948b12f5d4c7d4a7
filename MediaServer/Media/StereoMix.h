#pragma once

#include <string>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/MovieReport.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// A mix to stereo. Both files are already open; the library never opens a path.
struct StereoMixRequest {
    int source = -1;              ///< readable and seekable; borrowed
    int destination = -1;         ///< open for reading and writing; truncated first; borrowed
    std::string sourcePath;       ///< its extension helps to recognise the format
    std::string destinationPath;  ///< its extension names the container
};

/// Writes the movie with all of its enabled audio tracks mixed down to one stereo track (see stereoMatrix()), limited
/// to -1 dB of full scale. All other tracks are copied bit for bit.
///
/// Containers of the mov family store which tracks are enabled. In other containers, or if no track is enabled, all
/// tracks count as enabled. The stereo track is AAC, or the container's default codec if the container cannot hold AAC.
/// It keeps the language and title of the default track, or else of the first one. If the only enabled track is already
/// stereo, it is copied too. If the container cannot hold its codec, it is encoded without mixing or limiting. A
/// container for audio receives the stereo track only.
///
/// Threads and failures are those of encode(). A movie without audio fails with NoAudioTrack, and one whose video the
/// container cannot hold with ContainerCannotHold.
MovieReport mixToStereo(const StereoMixRequest& request, ProgressSink& sink);

}  // namespace krv::media
