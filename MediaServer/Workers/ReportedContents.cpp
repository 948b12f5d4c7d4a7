#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Workers/Lie.h>
#include <MediaServer/Workers/ReportedContents.h>

namespace krv::server {
namespace {

using Kind = Value::Kind;

bool isText(const Value& value, std::size_t longest) {
    return value.kind() == Kind::String && value.stringValue().size() <= longest;
}

bool isTitle(const Value& value) {
    return isText(value, kLongestMovieTitle);
}

bool isTrackKind(const Value& value) {
    static constexpr std::array<std::string_view, 6> kKinds{"video", "audio",      "subtitle",
                                                            "data",  "attachment", "cover"};
    return value.kind() == Kind::String && std::find(kKinds.begin(), kKinds.end(), value.stringValue()) != kKinds.end();
}

bool isBoolean(const Value& value) {
    return value.kind() == Kind::Boolean;
}

bool isExtent(const Value& value) {
    const auto isSide = [](double side) { return std::isfinite(side) && side > 0; };
    return value.kind() == Kind::Size && isSide(value.sizeValue().width) && isSide(value.sizeValue().height);
}

bool isRate(const Value& value) {
    return isTime(&value) && value.doubleValue() > 0;
}

bool isCount(const Value& value) {
    return value.kind() == Kind::Integer && value.integerValue() > 0;
}

/// An entry of each track besides its index.
struct TrackKey {
    std::string_view key;
    bool isRequired;
    bool (*isValid)(const Value& value);
};

Value checkedTrack(const Value& reported, std::size_t index) {
    const std::array<TrackKey, 9> kKeys{{{kResultMovieTrackKind, true, &isTrackKind},
                                         {kResultMovieTrackCodec, true, &isTitle},
                                         {kResultMovieTrackLanguage, true, &isTitle},
                                         {kResultMovieTrackTitle, false, &isTitle},
                                         {kResultMovieTrackDefault, true, &isBoolean},
                                         {kResultMovieTrackDimensions, false, &isExtent},
                                         {kResultMovieTrackFrameRate, false, &isRate},
                                         {kResultMovieTrackChannels, false, &isCount},
                                         {kResultMovieTrackSampleRate, false, &isCount}}};
    const auto track = reported.dictionary();
    const Value* const place = track ? track->find(kResultMovieTrackIndex) : nullptr;
    if (!isKind(place, Kind::Integer) || place->integerValue() != static_cast<std::int64_t>(index)) {
        throw Lie{"a track that is not in its place"};
    }
    Dictionary checked{{kResultMovieTrackIndex, *place}};
    for (const TrackKey& each : kKeys) {
        const Value* const value = track->find(each.key);
        if (value ? !each.isValid(*value) : each.isRequired) {
            throw Lie{fmt::format("a track without a valid {}", each.key)};
        }
        if (value) {
            checked.set(each.key, *value);
        }
    }
    return std::make_shared<Dictionary>(std::move(checked));
}

Value checkedTracks(const Dictionary& reported) {
    const auto tracks = reported[kResultMovieTracks].array();
    if (!tracks || tracks->size() > kMostMovieTracks) {
        throw Lie{"no list of tracks, or one that is too long"};
    }
    Array checked;
    checked.reserve(tracks->size());
    for (const Value& each : *tracks) {
        checked.push_back(checkedTrack(each, checked.size()));
    }
    return Value(std::move(checked));
}

Value checkedTags(const Dictionary& reported) {
    const auto tags = reported[kResultMovieTags].dictionary();
    if (!tags || tags->size() > kMostMovieTags) {
        throw Lie{"no tags, or too many"};
    }
    const bool valid = std::all_of(tags->begin(), tags->end(), [](const Dictionary::Entry& tag) {
        return !tag.first->empty() && tag.first->size() <= kLongestMovieTagKey && isText(tag.second, kLongestMovieTag);
    });
    if (!valid) {
        throw Lie{"an invalid tag"};
    }
    return reported[kResultMovieTags];
}

Value checkedChapters(const Dictionary& reported) {
    const auto chapters = reported[kResultMovieChapters].array();
    if (!chapters || chapters->size() > kMostMovieChapters) {
        throw Lie{"no list of chapters, or one that is too long"};
    }
    Array checked;
    checked.reserve(chapters->size());
    double last = -1;
    for (const Value& each : *chapters) {
        const auto chapter = each.dictionary();
        const Value* const start = chapter ? chapter->find(kResultMovieChapterStart) : nullptr;
        const Value* const end = chapter ? chapter->find(kResultMovieChapterEnd) : nullptr;
        const Value* const title = chapter ? chapter->find(kResultMovieChapterTitle) : nullptr;
        if (!isTime(start) || !isTime(end) || !title || !isTitle(*title) || start->doubleValue() < 0 ||
            start->doubleValue() <= last || end->doubleValue() < start->doubleValue()) {
            throw Lie{"a chapter without a valid start, end or title, or in the wrong order"};
        }
        last = start->doubleValue();
        checked.push_back(std::make_shared<Dictionary>(Dictionary{
            {kResultMovieChapterStart, *start}, {kResultMovieChapterEnd, *end}, {kResultMovieChapterTitle, *title}}));
    }
    return Value(std::move(checked));
}

}  // namespace

void copyMovieContents(const Dictionary& reported, Dictionary& result) {
    result.set(kResultMovieTracks, checkedTracks(reported));
    result.set(kResultMovieTags, checkedTags(reported));
    result.set(kResultMovieChapters, checkedChapters(reported));
}

}  // namespace krv::server
