#include "DroppedTracks.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

#include <fmt/format.h>

#include "Output.h"

namespace krvqt {
namespace {

/// Whether the kind is that of a track, not of a property of one.
bool isTrack(std::string_view kind) {
    constexpr std::array<std::string_view, 6> kTracks{"video", "audio", "subtitle", "data", "attachment", "cover"};
    return std::find(kTracks.begin(), kTracks.end(), kind) != kTracks.end();
}

}  // namespace

std::string droppedText(const krv::DroppedTrack& track, const std::vector<std::string>& sources) {
    std::string text;
    if (sources.size() > 1 && track.source < sources.size()) {
        text = std::filesystem::path(sources[track.source]).filename().string() + ": ";
    }
    text += track.index < 0
                ? track.kind
                : fmt::format("{}{} {}", track.kind, isTrack(track.kind) ? " track" : " of track", track.index);
    if (!track.codec.empty() || !track.language.empty()) {
        text += fmt::format(" ({}{}{})", track.codec, track.codec.empty() || track.language.empty() ? "" : ", ",
                            track.language);
    }
    return fmt::format("{}: {}", text, track.reason);
}

void printDropped(const std::vector<krv::DroppedTrack>& tracks, const std::vector<std::string>& sources) {
    for (const krv::DroppedTrack& track : tracks) {
        say("krvqt: dropped {}\n", droppedText(track, sources));
    }
}

nlohmann::json droppedJSON(const std::vector<krv::DroppedTrack>& tracks, const std::vector<std::string>& sources) {
    auto list = nlohmann::json::array();
    for (const krv::DroppedTrack& track : tracks) {
        list.push_back({{"index", track.index},
                        {"kind", track.kind},
                        {"codec", track.codec},
                        {"language", track.language},
                        {"reason", track.reason}});
        if (sources.size() > 1) {
            list.back()["source"] = track.source;
        }
    }
    return list;
}

}  // namespace krvqt
