#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Media.h>

namespace krvqt {

/// Returns one line about a dropped track: "subtitle track 3 (dvd_subtitle, deu): mp4 files cannot hold bitmap
/// subtitles". sources: paths of the sources; with several, the line begins with the name of the one that is meant.
[[nodiscard]] std::string droppedText(const krv::DroppedTrack& track, const std::vector<std::string>& sources);

/// Prints a line for each dropped track on standard error.
void printDropped(const std::vector<krv::DroppedTrack>& tracks, const std::vector<std::string>& sources);

/// Returns the tracks as objects with the keys of the record. With several sources each has the number of its own.
[[nodiscard]] nlohmann::json droppedJSON(const std::vector<krv::DroppedTrack>& tracks,
                                         const std::vector<std::string>& sources);

}  // namespace krvqt
