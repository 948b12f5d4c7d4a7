#pragma once

#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// Movies to be joined. All files are already open: nothing here ever opens a path.
struct MergeRequest {
    struct Input {
        int descriptor = -1;  ///< readable and seekable; not owned; the same one may stand here more than once
        std::string path;     ///< for messages and chapters; its extension helps to recognise the format
    };
    std::vector<Input> sources;   ///< one or more, in the order in which they are shown
    int destination = -1;         ///< open for reading and writing; emptied first; not owned
    std::string destinationPath;  ///< its extension names the container; for messages
    /// Whether each source ends with its shortest track; else the shorter ones are held, by their last picture
    /// or by silence, until the longest ends.
    bool useShortest = false;
};

/// Writes the sources one after another into one movie.
///
/// A track is copied bit for bit if it is the same in all sources and can be joined without a gap; otherwise
/// it is encoded again, with the codec of the first source that has such a track (or the container's usual
/// one), in that source's size, upright, rate, sample rate and channels. Pictures of another shape get bars.
/// A source without pictures among others with them is black, one without sound silent. The default or first
/// video track is taken, and as many audio tracks as the first source with sound has. Each source is a chapter,
/// named by its title or else its file. Of the tags those are kept that all sources share; subtitles are left
/// out.
///
/// Threads and failures are those of encode(); a source that is bad fails everything, and the Failure has
/// its index. No sources at all fail with InvalidArgument.
void merge(const MergeRequest& request, ProgressSink& sink);

}  // namespace krv::media
