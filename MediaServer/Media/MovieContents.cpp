#include <algorithm>
#include <cstdint>
#include <string_view>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Container/TrackNames.h>
#include <MediaServer/Media/MovieContents.h>
#include <MediaServer/Media/Video/FrameRate.h>

extern "C" {
#include <libavutil/avstring.h>
}

namespace krv::media {
namespace {

constexpr std::string_view kReplacement = "\uFFFD";
constexpr std::string_view kEllipsis = "…";

/// Returns the length of a text's longest beginning that has at most so many bytes and ends between two characters.
std::size_t lengthWithin(std::string_view text, std::size_t most) {
    std::size_t length = most;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
        --length;
    }
    return length;
}

/// Returns a text of a file as UTF-8 of at most so many bytes; see MovieContents.
std::string cleanText(std::string_view text, std::size_t most) {
    std::string clean;
    const auto* place = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto* const end = place + text.size();
    while (place < end && clean.size() <= most) {
        const auto* const character = place;
        std::int32_t code = 0;
        if (av_utf8_decode(&code, &place, end, AV_UTF8_FLAG_EXCLUDE_XML_INVALID_CONTROL_CODES) < 0) {
            clean += kReplacement;
        } else {
            clean.append(character, place);
        }
    }
    if (clean.size() > most) {
        clean.resize(lengthWithin(clean, most - kEllipsis.size()));
        clean += kEllipsis;
    }
    return clean;
}

std::string titleOf(const AVStream& stream) {
    const AVDictionaryEntry* const entry = av_dict_get(stream.metadata, "title", nullptr, 0);
    return entry ? cleanText(entry->value, kLongestListedTitle) : "";
}

std::string commonCodecOf(const AVStream& stream) {
    const AVCodecID codec = stream.codecpar->codec_id;
    return codec == AV_CODEC_ID_NONE || codec == AV_CODEC_ID_BIN_DATA ? codecOf(stream) : displayName(codec);
}

ListedTrack trackOf(const AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    ListedTrack track{.kind = kindOf(stream),
                      .codec = commonCodecOf(stream),
                      .language = languageOf(stream),
                      .title = titleOf(stream),
                      .isDefault = (stream.disposition & AV_DISPOSITION_DEFAULT) != 0};
    if (codec.codec_type == AVMEDIA_TYPE_VIDEO && codec.width > 0 && codec.height > 0) {
        track.dimensions = displayExtent(stream, codec.width, codec.height);
    }
    if (codec.codec_type == AVMEDIA_TYPE_VIDEO && !isCover(stream)) {
        track.frameRate = averageRate(stream);
    }
    if (codec.codec_type == AVMEDIA_TYPE_AUDIO && codec.ch_layout.nb_channels > 0) {
        track.channels = codec.ch_layout.nb_channels;
    }
    if (codec.codec_type == AVMEDIA_TYPE_AUDIO && codec.sample_rate > 0) {
        track.sampleRate = codec.sample_rate;
    }
    return track;
}

/// Returns whether a tag repeats another one: FFmpeg adds a tag in a language, such as "title-eng", beside "title".
bool repeatsAnother(const AVDictionaryEntry& entry, const AVDictionary& tags) {
    constexpr std::size_t kSuffix = 4;
    const std::string_view key = entry.key;
    if (key.size() <= kSuffix || key[key.size() - kSuffix] != '-') {
        return false;
    }
    const AVDictionaryEntry* const other =
        av_dict_get(&tags, std::string(key.substr(0, key.size() - kSuffix)).c_str(), nullptr, 0);
    return other && std::string_view(other->value) == entry.value;
}

std::map<std::string, std::string> tagsOf(const AVDictionary* tags) {
    std::map<std::string, std::string> list;
    const AVDictionaryEntry* entry = nullptr;
    while (list.size() < kMostListedTags && (entry = av_dict_get(tags, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        const std::string_view stored = entry->key;
        std::string key = cleanText(stored, kReplacement.size() * kLongestListedKey);
        if (stored.empty() || stored.size() > kLongestListedKey || key.size() > kLongestListedKey || !*entry->value ||
            describesTheFile(key) || repeatsAnother(*entry, *tags)) {
            continue;
        }
        std::transform(key.begin(), key.end(), key.begin(), [](char c) { return static_cast<char>(av_tolower(c)); });
        list.emplace(std::move(key), cleanText(entry->value, kLongestListedValue));
    }
    return list;
}

double seconds(std::int64_t microseconds) {
    return static_cast<double>(microseconds) / AV_TIME_BASE;
}

}  // namespace

MovieContents contentsOf(const Source& source) {
    MovieContents contents;
    for (std::size_t i = 0; i < std::min(source.streamCount(), kMostListedTracks); ++i) {
        contents.tracks.push_back(trackOf(source.stream(i)));
    }
    contents.tags = tagsOf(source.format().metadata);
    for (const Chapter& chapter : chaptersOf(source)) {
        if (contents.chapters.size() == kMostListedChapters) {
            break;
        }
        contents.chapters.push_back(
            {seconds(chapter.start), seconds(chapter.end), cleanText(chapter.title, kLongestListedTitle)});
    }
    return contents;
}

}  // namespace krv::media
