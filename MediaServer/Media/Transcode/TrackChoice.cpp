#include <algorithm>
#include <charconv>
#include <string_view>

#include <fmt/format.h>

#include <MediaServer/Media/Container/Language.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Transcode/TrackChoice.h>

namespace krv::media {
namespace {

std::optional<std::size_t> indexFrom(std::string_view text) {
    std::size_t index = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, index);
    return error == std::errc() && rest == end ? std::optional(index) : std::nullopt;
}

bool hasLanguage(const AVStream& stream, const std::string& wanted) {
    const AVDictionaryEntry* const tag = av_dict_get(stream.metadata, "language", nullptr, 0);
    return tag && sameLanguage(tag->value, wanted);
}

bool isNamed(const Source& source, std::size_t index, const std::string& name) {
    const auto number = indexFrom(name);
    return number ? *number == index : hasLanguage(source.stream(index), name);
}

std::vector<std::size_t> find(const Source& source, AVMediaType kind, const char* key,
                              const std::vector<std::string>& names) {
    const auto all = usableStreams(source, kind);
    std::vector<std::size_t> found;
    for (const std::string& name : names) {
        const auto before = found.size();
        std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                     [&](std::size_t index) { return isNamed(source, index, name); });
        if (found.size() == before) {
            throw Failure({.cause = FailureCause::UnsupportedSetting,
                           .subject = key,
                           .detail = fmt::format("names a track that the movie does not have: “{}”", name)});
        }
    }
    return found;
}

bool among(const std::optional<std::vector<std::size_t>>& chosen, std::size_t index) {
    return !chosen || std::find(chosen->begin(), chosen->end(), index) != chosen->end();
}

}  // namespace

bool TrackChoice::keeps(AVMediaType kind, std::size_t index) const {
    if (kind == AVMEDIA_TYPE_SUBTITLE) {
        return burnIn != index && among(subtitles, index);
    }
    return kind != AVMEDIA_TYPE_AUDIO || among(audio, index);
}

TrackChoice chooseTracks(const Source& source, const Settings& video, const Settings& audio) {
    TrackChoice choice;
    if (!audio.tracks.empty()) {
        choice.audio = find(source, AVMEDIA_TYPE_AUDIO, "audioTracks", audio.tracks);
    }
    if (!video.tracks.empty()) {
        choice.subtitles = find(source, AVMEDIA_TYPE_SUBTITLE, "subtitleTracks", video.tracks);
    }
    if (video.burnInTrack) {
        choice.burnIn =
            defaultOrFirst(source, find(source, AVMEDIA_TYPE_SUBTITLE, "burnInSubtitleTrack", {*video.burnInTrack}));
    }
    return choice;
}

}  // namespace krv::media
