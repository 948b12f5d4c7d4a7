#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

/// Returns what the finished record of an operation says of dropped tracks. Null if it says nothing.
[[nodiscard]] std::shared_ptr<const krv::Array> droppedTracks(const krv::KRVOperationBase::Ref& finished);

/// Returns one line about a dropped track: "subtitle track 3 (dvd_subtitle, deu): mp4 files cannot hold bitmap
/// subtitles". sources: paths of the sources; with several, the line begins with the name of the one that is meant.
[[nodiscard]] std::string droppedText(const krv::Dictionary& track, const std::vector<std::string>& sources);

/// Prints a line for each dropped track on standard error.
void printDropped(const krv::Array& tracks, const std::vector<std::string>& sources);

/// Returns the entries as JSON objects with the keys of the record.
[[nodiscard]] nlohmann::json droppedJSON(const krv::Array& tracks);

}  // namespace krvqt
