#pragma once

#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/MovieReport.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>

namespace krv::media {

/// A merge of movies. All files are already open; the library never opens a path.
struct MergeRequest {
    struct Input {
        int descriptor = -1;  ///< readable and seekable; borrowed; may occur more than once
        std::string path;     ///< for chapters; its extension helps to recognise the format
    };
    std::vector<Input> sources;   ///< one or more, in the order of playback
    int destination = -1;         ///< open for reading and writing; truncated first; borrowed
    std::string destinationPath;  ///< its extension names the container
    /// Whether each source ends with its shortest track. Otherwise shorter tracks are extended to the end of the
    /// longest one, by their last frame or by silence.
    bool useShortest = false;
    /// Frames per second, above 0. Nothing: see merge().
    std::optional<double> frameRate{};
    struct Size {
        double width = 0;
        double height = 0;
    };
    /// In pixels, which are square then. Both sides are whole. Nothing: see merge().
    std::optional<Size> size{};
};

/// Joins the sources one after another into one movie.
///
/// The merged movie has the default or first video track of the sources, and as many audio tracks as the first source
/// with audio. A track is copied bit for bit if its format is the same in all sources and it can be joined without a
/// gap. Otherwise it is encoded again with the codec of the first source that has such a track, or with the container's
/// default codec. Size, frame rate, sample rate and channels are also those of that source, and video is upright. But
/// if its frame rate is below 20, the highest one of all sources is used. Frames of another shape are letterboxed. A
/// source without video is black, and one without audio is silent. Each source becomes a chapter, named after its title
/// or else its file, and its own chapters follow. The first cover is kept. Tags are kept if all sources share them.
///
/// Subtitles of one language are joined in one track: text with text, bitmaps with bitmaps, forced with forced; the
/// second such track of a source with the second of the others. Text whose formats differ is converted. Subtitles end
/// where their source ends. Attached fonts are kept once. Everything else is dropped, and the report lists it.
///
/// MergeRequest::frameRate and MergeRequest::size override rate and size. Fails with ValueOutOfRange if they cannot be
/// used.
///
/// Threads and failures are those of encode(). If one source cannot be used, the whole merge fails, and Failure::source
/// is its index. Without sources it fails with InvalidArgument.
MovieReport merge(const MergeRequest& request, ProgressSink& sink);

}  // namespace krv::media
