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

/// Writes the movie with the audio tracks that are played mixed down to one stereo track (see stereoMatrix()), limited
/// to
/// -1 dB of full scale. All other tracks are copied bit for bit.
///
/// Of the mov family, all enabled tracks are played, or all if none is enabled. In other containers the tracks are
/// alternatives: the default one is played, or the first if there is none. The stereo track is AAC, or the container's
/// default codec if the container cannot hold AAC. It keeps the language and title of the first track that is played.
/// If the only one is already stereo, it is copied too. If the container cannot hold its codec, it is encoded without
/// mixing or limiting. A container for audio receives the stereo track only.
///
/// Threads and failures are those of encode(). A movie without audio fails with NoAudioTrack, and one whose video the
/// container cannot hold with ContainerCannotHold.
MovieReport mixToStereo(const StereoMixRequest& request, ProgressSink& sink);

}  // namespace krv::media
