#pragma once

#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

// The mov family has two kinds of lists of tags. The classic one has a fixed set of tags: those of QuickTime in mov,
// those of iTunes in mp4. The other one has keys of any name. FFmpeg's muxer writes one of them.

/// Returns whether a movie with these tags needs the list with keys, because the classic one would lose some.
[[nodiscard]] bool needsKeyedTags(const Container& container, const AVDictionary* tags);

/// Makes room for a cover among the tags. The muxer only writes texts, so a text of the same length takes its place
/// until fillCover(). Makes needsKeyedTags() true.
void reserveCover(AVDictionary** tags, const AVPacket& picture);

/// Writes the picture into the place that a finished file has for it. file: open for reading and writing. isPNG: false
/// for JPEG. Returns false with errno set if the file cannot be read or written, or has no such place.
[[nodiscard]] bool fillCover(int file, const AVPacket& picture, bool isPNG);

}  // namespace krv::media
