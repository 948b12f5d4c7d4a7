#include <cmath>
#include <string_view>
#include <utility>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Jobs/FinishedResult.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>

namespace krv {
namespace {

/// Returns the dictionary, or an empty one for a value of another kind and for none.
template <typename Holder>
const Dictionary& orEmpty(const Holder& dictionary) {
    static const auto* const kEmpty = new Dictionary;
    return dictionary ? *dictionary : *kEmpty;
}

/// Makes a list of the elements of an array that the function makes something of.
template <typename Element, typename Function>
std::vector<Element> listOf(const Value& array, Function makeElement) {
    std::vector<Element> list;
    if (const auto elements = array.array()) {
        list.reserve(elements->size());
        for (const Value& element : *elements) {
            list.push_back(makeElement(element));
        }
    }
    return list;
}

std::optional<Seconds> secondsIn(const Value& value) {
    return value.isNumber() ? std::optional(Seconds(value.doubleValue())) : std::nullopt;
}

std::optional<std::chrono::system_clock::time_point> timeIn(const Value& value) {
    using Time = std::chrono::system_clock::time_point;
    constexpr double kReference = 978307200;  // from 1970 to the start of 2001, from which dates count
    const Date* const date = value.date();
    const double seconds = date ? date->secondsSinceReference + kReference : std::nan("");
    const double most = std::chrono::duration<double>(Time::max().time_since_epoch()).count();
    if (!(std::fabs(seconds) < most)) {
        return std::nullopt;
    }
    return Time(std::chrono::duration_cast<Time::duration>(std::chrono::duration<double>(seconds)));
}

DroppedTrack droppedTrack(const Value& value) {
    const auto holder = value.dictionary();
    const Dictionary& track = orEmpty(holder);
    const std::int64_t source = track[kResultDroppedTrackSource].integerValue();
    return {.source = source > 0 ? static_cast<std::size_t>(source) : 0,
            .index = track[kResultDroppedTrackIndex].integerValue(),
            .kind = track[kResultDroppedTrackKind].stringValue(),
            .codec = track[kResultDroppedTrackCodec].stringValue(),
            .language = track[kResultDroppedTrackLanguage].stringValue(),
            .reason = track[kResultDroppedTrackReason].stringValue()};
}

std::vector<DroppedTrack> droppedTracks(const Dictionary& result) {
    return listOf<DroppedTrack>(result[kResultDroppedTracks], droppedTrack);
}

Thumbnail thumbnail(const Value& value) {
    const auto holder = value.dictionary();
    const Dictionary& entry = orEmpty(holder);
    return {.path = entry[kResultThumbnailPath].stringValue(),
            .time = Seconds(entry[kResultThumbnailTime].doubleValue())};
}

MovieTrack movieTrack(const Value& value) {
    const auto holder = value.dictionary();
    const Dictionary& track = orEmpty(holder);
    const Size size = track[kResultMovieTrackDimensions].sizeValue();
    return {.index = track[kResultMovieTrackIndex].integerValue(),
            .kind = track[kResultMovieTrackKind].stringValue(),
            .codec = track[kResultMovieTrackCodec].stringValue(),
            .language = track[kResultMovieTrackLanguage].stringValue(),
            .title = track[kResultMovieTrackTitle].stringValue(),
            .isDefault = track[kResultMovieTrackDefault].boolValue(),
            .width = size.width,
            .height = size.height,
            .frameRate = track[kResultMovieTrackFrameRate].doubleValue(),
            .channels = track[kResultMovieTrackChannels].integerValue(),
            .sampleRate = track[kResultMovieTrackSampleRate].integerValue()};
}

MovieChapter movieChapter(const Value& value) {
    const auto holder = value.dictionary();
    const Dictionary& chapter = orEmpty(holder);
    return {.start = Seconds(chapter[kResultMovieChapterStart].doubleValue()),
            .end = Seconds(chapter[kResultMovieChapterEnd].doubleValue()),
            .title = chapter[kResultMovieChapterTitle].stringValue()};
}

std::map<std::string, std::string> tagsIn(const Value& value) {
    const auto holder = value.dictionary();
    std::map<std::string, std::string> tags;
    for (const auto& [name, text] : orEmpty(holder)) {
        tags.emplace(*name, text.stringValue());
    }
    return tags;
}

}  // namespace

std::vector<Seconds> InterestingTimes::seconds() const {
    std::vector<Seconds> list;
    list.reserve(values.size());
    for (const std::int64_t value : values) {
        list.emplace_back(static_cast<double>(value) / static_cast<double>(timescale));
    }
    return list;
}

std::shared_ptr<const void> converted(const KRVOperationBase::Ref& finished) {
    const auto holder = finished->result();
    const Dictionary& result = orEmpty(holder);
    return std::make_shared<const Converted>(Converted{.path = finished->encodingDestinationFilename().value_or(""),
                                                       .droppedTracks = droppedTracks(result),
                                                       .sourceTruncatedAt = secondsIn(result[kResultSourceTruncatedAt]),
                                                       .record = finished});
}

std::shared_ptr<const void> merged(const KRVOperationBase::Ref& finished) {
    const auto holder = finished->result();
    const Dictionary& result = orEmpty(holder);
    return std::make_shared<const Merged>(
        Merged{.path = finished->encodingDestinationFilename().value_or(""),
               .droppedTracks = droppedTracks(result),
               .sourcesTruncatedAt = listOf<std::optional<Seconds>>(result[kResultSourcesTruncatedAt], secondsIn),
               .record = finished});
}

std::shared_ptr<const void> thumbnails(const KRVOperationBase::Ref& finished) {
    const auto holder = finished->result();
    const Dictionary& result = orEmpty(holder);
    return std::make_shared<const Thumbnails>(
        Thumbnails{.thumbnails = listOf<Thumbnail>(result[kResultThumbnails], thumbnail),
                   .sourceTruncatedAt = secondsIn(result[kResultSourceTruncatedAt]),
                   .record = finished});
}

std::shared_ptr<const void> movieInfo(const KRVOperationBase::Ref& finished) {
    const auto holder = finished->metadata();
    const auto resultHolder = finished->result();
    const Dictionary& metadata = orEmpty(holder);
    const Dictionary& result = orEmpty(resultHolder);
    const Size size = metadata[kMediaMetadataDimensions].sizeValue();
    return std::make_shared<const MovieInfo>(
        MovieInfo{.path = metadata[kMediaMetadataPath].stringValue(),
                  .codecs = metadata[kMediaMetadataCodec].stringValue(),
                  .audio = metadata[kMediaMetadataAudio].stringValue(),
                  .duration = secondsIn(metadata[kMediaMetadataDuration]),
                  .width = size.width,
                  .height = size.height,
                  .frameRate = metadata[kMediaMetadataFrameRate].doubleValue(),
                  .size = metadata[kMediaMetadataSize].integerValue(),
                  .created = timeIn(metadata[kMediaMetadataCreation]),
                  .modified = timeIn(metadata[kMediaMetadataModified]),
                  .poster = metadata[kMediaMetadataPoster].data(),
                  .tracks = listOf<MovieTrack>(result[kResultMovieTracks], movieTrack),
                  .tags = tagsIn(result[kResultMovieTags]),
                  .chapters = listOf<MovieChapter>(result[kResultMovieChapters], movieChapter),
                  .sourceTruncatedAt = secondsIn(result[kResultSourceTruncatedAt]),
                  .record = finished});
}

std::shared_ptr<const void> interestingTimes(const KRVOperationBase::Ref& finished) {
    const auto resultHolder = finished->result();
    const Dictionary& result = orEmpty(resultHolder);
    const auto holder = result[kResultInterestingTimes].dictionary();
    const Dictionary& times = orEmpty(holder);
    const std::int64_t timescale = times[kResultInterestingTimeTimescale].integerValue();
    return std::make_shared<const InterestingTimes>(
        InterestingTimes{.values = listOf<std::int64_t>(times[kResultInterestingTimeValues],
                                                        [](const Value& value) { return value.integerValue(); }),
                         .timescale = timescale > 0 ? timescale : 1,
                         .sourceTruncatedAt = secondsIn(result[kResultSourceTruncatedAt]),
                         .record = finished});
}

}  // namespace krv
