#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Copies the movie's tags and chapters, the latter on the movie's own time. Call before OutputFile::writeHeader().
void copyMovieMetadata(const Source& source, OutputFile& output);

struct Chapter {
    std::int64_t start;  ///< in microseconds
    std::string title;
    std::int64_t end = 0;  ///< in microseconds
};
/// Adds chapters that follow one another without gaps; their own ends do not count. end: where the last one ends, in
/// microseconds. Call before OutputFile::writeHeader().
void addChapters(const std::vector<Chapter>& chapters, std::int64_t end, OutputFile& output);

/// Returns the source's chapters on the movie's own time, in order. Leaves out those that do not begin after the one
/// before, or that end before the movie begins. None ends before it begins.
[[nodiscard]] std::vector<Chapter> chaptersOf(const Source& source);

/// Returns whether the tag with this key, in any case, describes the source file itself and is wrong for any other file.
[[nodiscard]] bool describesTheFile(std::string key);

/// Copies the tags, except those that describe the source file itself.
void copyTags(const AVDictionary* from, AVDictionary** to);

/// Copies the metadata that does not depend on the codec: language, title, time code, disposition.
void copyTrackMetadata(const AVStream& from, AVStream& to, const Container& container);

/// Copies the side data that describes how video is shown, not how it is coded: rotation and mirroring (if
/// displayMatrix), spherical and stereoscopic layout.
void copyVideoSideData(const AVStream& from, AVStream& to, bool displayMatrix);

/// Copies all side data, for a stream whose packets are copied.
void copyAllSideData(const AVStream& from, AVStream& to);

}  // namespace krv::media
