#include "DroppedTracks.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

#include <fmt/format.h>

namespace krvqt {
namespace {

/// Whether the kind is that of a track, not of a property of one.
bool isTrack(std::string_view kind) {
    constexpr std::array<std::string_view, 6> kTracks{"video", "audio", "subtitle", "data", "attachment", "cover"};
    return std::find(kTracks.begin(), kTracks.end(), kind) != kTracks.end();
}

}  // namespace

std::shared_ptr<const krv::Array> droppedTracks(const krv::KRVOperationBase::Ref& finished) {
    const auto result = finished ? finished->result() : nullptr;
    return result ? (*result)[krv::kResultDroppedTracks].array() : nullptr;
}

std::string droppedText(const krv::Dictionary& track, const std::vector<std::string>& sources) {
    const std::string kind = track[krv::kResultDroppedTrackKind].stringValue();
    const std::string codec = track[krv::kResultDroppedTrackCodec].stringValue();
    const std::string language = track[krv::kResultDroppedTrackLanguage].stringValue();
    const std::int64_t index = track[krv::kResultDroppedTrackIndex].integerValue();
    const auto source = static_cast<std::size_t>(track[krv::kResultDroppedTrackSource].integerValue());

    std::string text;
    if (sources.size() > 1 && source < sources.size()) {
        text = std::filesystem::path(sources[source]).filename().string() + ": ";
    }
    text += index < 0 ? kind : fmt::format("{}{} {}", kind, isTrack(kind) ? " track" : " of track", index);
    if (!codec.empty() || !language.empty()) {
        text += fmt::format(" ({}{}{})", codec, codec.empty() || language.empty() ? "" : ", ", language);
    }
    return fmt::format("{}: {}", text, track[krv::kResultDroppedTrackReason].stringValue());
}

void printDropped(const krv::Array& tracks, const std::vector<std::string>& sources) {
    for (const krv::Value& each : tracks) {
        if (const auto track = each.dictionary()) {
            fmt::print(stderr, "krvqt: dropped {}\n", droppedText(*track, sources));
        }
    }
}

nlohmann::json droppedJSON(const krv::Array& tracks) {
    auto list = nlohmann::json::array();
    for (const krv::Value& each : tracks) {
        const auto track = each.dictionary();
        if (!track) {
            continue;
        }
        nlohmann::json object{{"index", (*track)[krv::kResultDroppedTrackIndex].integerValue()}};
        for (const std::string_view key : {krv::kResultDroppedTrackKind, krv::kResultDroppedTrackCodec,
                                           krv::kResultDroppedTrackLanguage, krv::kResultDroppedTrackReason}) {
            object[std::string(key)] = (*track)[key].stringValue();
        }
        if (const krv::Value* const source = track->find(krv::kResultDroppedTrackSource)) {
            object["source"] = source->integerValue();
        }
        list.push_back(std::move(object));
    }
    return list;
}

}  // namespace krvqt
