#pragma once

#include <string>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// A mix to stereo. Both files are already open: nothing here ever opens a path.
struct StereoMixRequest {
    int source = -1;              ///< readable and seekable; not owned
    int destination = -1;         ///< open for reading and writing; emptied first; not owned
    std::string sourcePath;       ///< for messages; its extension helps to recognise the format
    std::string destinationPath;  ///< its extension names the container; for messages
};

/// Writes the movie with all of its enabled sound mixed into one stereo track (see stereoMatrix()), limited to
/// -1 dB of full scale; everything else is copied bit for bit.
///
/// Which tracks are enabled is said by containers of the mov family; elsewhere all are, and all are if none
/// is. The track is AAC, or the container's usual codec where AAC cannot stand in it, and keeps the language
/// and title of the default track or the first. If the only enabled track is stereo already, it is copied
/// too, or encoded alone and unlimited if the container cannot hold its codec. A container for sound alone
/// gets the sound alone.
///
/// Threads and failures are those of encode(); a movie without sound fails with NoAudioTrack, one whose
/// pictures the container cannot hold with ContainerCannotHold.
void mixToStereo(const StereoMixRequest& request, ProgressSink& sink);

}  // namespace krv::media
