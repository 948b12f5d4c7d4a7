#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The movie's tags and chapters, on the movie's own time. Before OutputFile::writeHeader().
void copyMovieMetadata(const Source& source, OutputFile& output);

/// Chapters that follow one another without gaps; the last one ends at this time. Microseconds. Before
/// OutputFile::writeHeader().
struct Chapter {
    std::int64_t start;
    std::string title;
};
void addChapters(const std::vector<Chapter>& chapters, std::int64_t end, OutputFile& output);

/// Tags, but for those that describe the source file itself and would be untrue of another.
void copyTags(const AVDictionary* from, AVDictionary** to);

/// What makes a track the track it is, whatever codec it is in: language, title, time code, disposition.
void copyTrackMetadata(const AVStream& from, AVStream& to, const Container& container);

/// Side data that describes the picture and not its coding: rotation and mirroring (if displayMatrix),
/// spherical and stereoscopic layout.
void copyVideoSideData(const AVStream& from, AVStream& to, bool displayMatrix);

/// All of a stream's side data, for a stream that is copied.
void copyAllSideData(const AVStream& from, AVStream& to);

}  // namespace krv::media
