#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Workers/Lie.h>
#include <MediaServer/Workers/ReportedContents.h>
#include <MediaServer/Workers/WorkerReport.h>

namespace krv::server {
namespace {

using Kind = Value::Kind;

/// More than a sentence with two paths needs.
constexpr std::size_t kLongestErrorText = 32768;

// Errors.

std::string errorText(const Error& error, std::string_view key) {
    const Value* const text = error.userInfo() ? error.userInfo()->find(key) : nullptr;
    if (!isKind(text, Kind::String) || text->stringValue().size() > kLongestErrorText) {
        throw Lie{fmt::format("an error without a valid {}", key)};
    }
    return text->stringValue();
}

/// Returns whether an error of this code can have this error number.
bool isErrorNumber(std::int64_t code, const Value& number) {
    const bool fromTheSystem = code == static_cast<std::int64_t>(OperationErrorCode::UnreadableSource) ||
                               code == static_cast<std::int64_t>(OperationErrorCode::UnwritableDestination);
    return fromTheSystem && number.kind() == Kind::Integer && number.integerValue() > 0 &&
           number.integerValue() <= kLargestErrorNumber;
}

std::shared_ptr<const Error> checkedError(const KRVOperationBase& request, const Error& error) {
    if (error.domain() != kMediaServerErrorDomain) {
        throw Lie{"an error of another domain"};
    }
    constexpr auto kFirst = static_cast<std::int64_t>(OperationErrorCode::UnreadableSource);
    constexpr auto kLast = static_cast<std::int64_t>(OperationErrorCode::InvalidArgument);
    if (error.code() < kFirst || error.code() > kLast) {
        throw Lie{fmt::format("the error code {}", error.code())};
    }
    Dictionary userInfo{{NSLocalizedDescriptionKey, errorText(error, NSLocalizedDescriptionKey)},
                        {NSLocalizedFailureReasonErrorKey, errorText(error, NSLocalizedFailureReasonErrorKey)}};
    if (error.userInfo()->find(kErrorFilePath)) {
        const std::string path = errorText(error, kErrorFilePath);
        const auto sources = sourcesOf(request);
        if (std::find(sources.begin(), sources.end(), path) == sources.end() &&
            path != request.encodingDestinationFilename()) {
            throw Lie{"an error about a file of its own choice"};
        }
        userInfo.set(kErrorFilePath, path);
    }
    if (const Value* const number = error.userInfo()->find(kErrorNumber)) {
        if (!isErrorNumber(error.code(), *number)) {
            throw Lie{"an invalid error number"};
        }
        userInfo.set(kErrorNumber, *number);
    }
    return Error::make(error.domain(), error.code(), std::move(userInfo));
}

// Results.

/// A slice of the worker's file.
struct Slice {
    std::int64_t offset;
    std::int64_t length;
};

/// Pictures that overlap would take more room than the worker has written.
void checkSlices(std::vector<Slice> slices) {
    std::sort(slices.begin(), slices.end(), [](const Slice& a, const Slice& b) { return a.offset < b.offset; });
    std::int64_t end = 0;
    for (const Slice& each : slices) {
        if (each.offset < end || each.length <= 0 || each.length > static_cast<std::int64_t>(kLargestPoster)) {
            throw Lie{"thumbnails that overlap, or are empty or too large"};
        }
        if (__builtin_add_overflow(each.offset, each.length, &end)) {
            throw Lie{"a thumbnail beyond the end of any file"};
        }
    }
}

Value checkedThumbnails(const KRVOperationBase& request, const KRVOperationBase& report) {
    const auto pictures = report.result() ? (*report.result())[kResultThumbnails].array() : nullptr;
    if (!pictures) {
        throw Lie{"no list of thumbnails"};
    }
    const auto most = static_cast<std::size_t>(thumbnailCountOf(request));
    if (pictures->empty() || pictures->size() > most) {
        throw Lie{fmt::format("{} thumbnails instead of {}", pictures->size(), most)};
    }
    Array checked;
    std::vector<Slice> slices;
    for (const Value& each : *pictures) {
        const auto picture = each.dictionary();
        if (!picture || !isTime(picture->find(kResultThumbnailTime)) ||
            !isKind(picture->find(kThumbnailOffset), Kind::Integer) ||
            !isKind(picture->find(kThumbnailLength), Kind::Integer)) {
            throw Lie{"a thumbnail without time, offset or length"};
        }
        const Slice slice{(*picture)[kThumbnailOffset].integerValue(), (*picture)[kThumbnailLength].integerValue()};
        slices.push_back(slice);
        checked.push_back(
            std::make_shared<Dictionary>(Dictionary{{kResultThumbnailTime, (*picture)[kResultThumbnailTime]},
                                                    {kThumbnailOffset, slice.offset},
                                                    {kThumbnailLength, slice.length}}));
    }
    checkSlices(std::move(slices));
    return Value(std::move(checked));
}

struct DescriptionKey {
    std::string_view key;
    Kind kind;
};

std::shared_ptr<const Dictionary> checkedDescription(const KRVOperationBase& request, const KRVOperationBase& report) {
    const std::array<DescriptionKey, 10> kKeys{{{kMediaMetadataCodec, Kind::String},
                                                {kMediaMetadataDuration, Kind::Float64},
                                                {kMediaMetadataDimensions, Kind::Size},
                                                {kMediaMetadataAudio, Kind::String},
                                                {kMediaMetadataSize, Kind::Integer},
                                                {kMediaMetadataPath, Kind::String},
                                                {kMediaMetadataCreation, Kind::Date},
                                                {kMediaMetadataModified, Kind::Date},
                                                {kMediaMetadataFrameRate, Kind::Float64},
                                                {kMediaMetadataPoster, Kind::Data}}};
    const auto description = report.metadata();
    if (!description) {
        throw Lie{"no description"};
    }
    Dictionary checked;
    for (const DescriptionKey& each : kKeys) {
        const Value* const value = description->find(each.key);
        if (!value) {
            continue;
        }
        if (value->kind() != each.kind) {
            throw Lie{fmt::format("a value of the wrong kind under {}", each.key)};
        }
        if (each.kind == Kind::Float64 && !std::isfinite(value->doubleValue())) {
            throw Lie{fmt::format("a number that is not finite under {}", each.key)};
        }
        if (each.kind == Kind::String && each.key != kMediaMetadataPath &&
            value->stringValue().size() > kLongestDescriptionText) {
            throw Lie{fmt::format("a text of {} bytes under {}", value->stringValue().size(), each.key)};
        }
        if (each.kind == Kind::Data && value->data()->size() > kLargestPoster) {
            throw Lie{fmt::format("a poster of {} bytes", value->data()->size())};
        }
        checked.set(each.key, *value);
    }
    if (const auto path = request.encodingSourceFilename(); path && !path->empty()) {
        checked.set(kMediaMetadataPath, *path);
    }
    return std::make_shared<const Dictionary>(std::move(checked));
}

Value checkedInterestingTimes(const KRVOperationBase& report) {
    const auto times = report.result() ? (*report.result())[kResultInterestingTimes].dictionary() : nullptr;
    const auto values = times ? (*times)[kResultInterestingTimeValues].array() : nullptr;
    const Value* const scale = times ? times->find(kResultInterestingTimeTimescale) : nullptr;
    if (!values || !isKind(scale, Kind::Integer) || scale->integerValue() <= 0) {
        throw Lie{"no interesting times, or no time scale"};
    }
    if (!std::all_of(values->begin(), values->end(),
                     [](const Value& value) { return value.kind() == Kind::Integer; }) ||
        std::adjacent_find(values->begin(), values->end(), [](const Value& a, const Value& b) {
            return a.integerValue() >= b.integerValue();
        }) != values->end()) {
        throw Lie{"interesting times that are not ascending integers"};
    }
    return Value(
        std::make_shared<Dictionary>(Dictionary{{kResultInterestingTimeValues, (*times)[kResultInterestingTimeValues]},
                                                {kResultInterestingTimeTimescale, *scale}}));
}

/// More streams than FFmpeg opens, with several lost properties each.
constexpr std::size_t kMostDropped = 10'000;

std::string droppedText(const Dictionary& track, std::string_view key) {
    const Value* const text = track.find(key);
    if (!isKind(text, Kind::String) || text->stringValue().size() > kLongestDroppedTrackText) {
        throw Lie{fmt::format("a dropped track without a valid {}", key)};
    }
    return text->stringValue();
}

Value checkedDroppedTracks(const KRVOperationBase& request, const KRVOperationBase& report) {
    const auto tracks = report.result() ? (*report.result())[kResultDroppedTracks].array() : nullptr;
    const bool isMerge = request.operationType() == OpMergeSources;
    const auto sources = static_cast<std::int64_t>(sourcesOf(request).size());
    if (!tracks || tracks->size() > kMostDropped * static_cast<std::size_t>(std::max<std::int64_t>(sources, 1))) {
        throw Lie{"no list of dropped tracks, or one that is too long"};
    }
    Array checked;
    for (const Value& each : *tracks) {
        const auto track = each.dictionary();
        const Value* const index = track ? track->find(kResultDroppedTrackIndex) : nullptr;
        if (!isKind(index, Kind::Integer) || index->integerValue() < -1) {
            throw Lie{"a dropped track without a valid index"};
        }
        Dictionary entry{{kResultDroppedTrackIndex, *index}};
        for (const std::string_view key : {kResultDroppedTrackKind, kResultDroppedTrackCodec,
                                           kResultDroppedTrackLanguage, kResultDroppedTrackReason}) {
            entry.set(key, droppedText(*track, key));
        }
        if (isMerge) {
            const Value* const source = track->find(kResultDroppedTrackSource);
            if (!isKind(source, Kind::Integer) || source->integerValue() < 0 || source->integerValue() >= sources) {
                throw Lie{"a dropped track of no source"};
            }
            entry.set(kResultDroppedTrackSource, *source);
        }
        checked.push_back(std::make_shared<Dictionary>(std::move(entry)));
    }
    return Value(std::move(checked));
}

bool isTruncation(const Value& value) {
    return isTime(&value) || value.isNull();
}

/// Copies what the worker says of truncated sources.
void addTruncation(const KRVOperationBase& request, const Dictionary& reported, Dictionary& result) {
    if (const Value* const at = reported.find(kResultSourceTruncatedAt)) {
        if (!isTime(at)) {
            throw Lie{"an invalid end of a truncated source"};
        }
        result.set(kResultSourceTruncatedAt, *at);
    }
    if (const Value* const each = reported.find(kResultSourcesTruncatedAt)) {
        const auto list = each->array();
        if (!list || list->size() != sourcesOf(request).size() ||
            !std::all_of(list->begin(), list->end(), &isTruncation)) {
            throw Lie{"invalid ends of truncated sources"};
        }
        result.set(kResultSourcesTruncatedAt, *each);
    }
}

KRVOperationBase::Ref checkedRecord(const KRVOperationBase& request, const KRVOperationBase& report) {
    const auto record = std::make_shared<KRVOperationBase>();
    record->setOperationType(OpReturnResult);
    record->setProgress(1.0F, true);
    // Only what is known and has been checked is passed on.
    Dictionary result;
    switch (request.operationType()) {
    case OpEncodeVideo:
    case OpMuxAudioTo2ch:
    case OpMergeSources:
        result.set(kResultDroppedTracks, checkedDroppedTracks(request, report));
        break;
    case OpCreateThumbnails:
        result.set(kResultThumbnails, checkedThumbnails(request, report));
        break;
    case OpProvideMetadata:
        record->setMetadata(checkedDescription(request, report));
        copyMovieContents(report.result() ? *report.result() : Dictionary(), result);
        break;
    case OpGetInterestingTimes:
        result.set(kResultInterestingTimes, checkedInterestingTimes(report));
        break;
    default:
        break;
    }
    if (const auto reported = report.result()) {
        addTruncation(request, *reported, result);
    }
    if (!result.empty()) {
        record->setResult(std::make_shared<Dictionary>(std::move(result)));
    }
    return record;
}

}  // namespace

std::size_t longestReport(std::int32_t operationType) noexcept {
    constexpr std::size_t kLongest = std::size_t{16} << 20;
    return operationType == OpGetInterestingTimes ? 2 * kLongest : kLongest;
}

Outcome outcomeOf(const KRVOperationBase& request, const KRVOperationBase& report, std::size_t size) {
    try {
        if (size > longestReport(request.operationType())) {
            throw Lie{fmt::format("a report of {} bytes", size)};
        }
        if (const auto error = report.error()) {
            return {Outcome::Kind::Failed, checkedError(request, *error), nullptr};
        }
        return {Outcome::Kind::Completed, nullptr, checkedRecord(request, report)};
    } catch (const Lie& lie) {
        return {Outcome::Kind::Failed,
                makeError(request, {.cause = FailureCause::InternalError, .reason = "the worker sent " + lie.reason}),
                nullptr};
    }
}

}  // namespace krv::server
