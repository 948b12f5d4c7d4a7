#include <array>
#include <cmath>

#include <fmt/format.h>

#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/RequestArguments.h>

namespace krv::server {
namespace {

using Checked = std::optional<Failure>;
using Kind = Value::Kind;

template <typename Parameters>
Checked checkParameters(const KRVOperationBase& request, std::string_view key,
                        const std::shared_ptr<const Parameters>& parameters) {
    return parameters || !findArgument(request, key)
               ? std::nullopt
               : invalidArgument(key, "does not contain encoding parameters of its kind");
}

Checked checkEncode(const KRVOperationBase& request) {
    if (auto error = checkKind(request, kArgumentEncodingType, Kind::Integer, "an integer")) {
        return error;
    }
    if (auto error = checkKind(request, kArgumentEncodingFlattenOnly, Kind::Boolean, "a boolean")) {
        return error;
    }
    if (auto error = checkParameters(request, kArgumentEncodingVideoParameters, request.encodingVideoParameters())) {
        return error;
    }
    if (auto error = checkParameters(request, kArgumentEncodingAudioParameters, request.encodingAudioParameters())) {
        return error;
    }
    if (VideoConversion::nameForType(request.encodingType()) == "Unknown") {
        return Failure{.cause = FailureCause::UnsupportedEncodingType,
                       .subject = std::to_string(request.encodingType())};
    }
    return std::nullopt;
}

Checked checkThumbnails(const KRVOperationBase& request) {
    if (auto error = checkKind(request, kArgumentThumbnailInfoSize, Kind::Size, "a size")) {
        return error;
    }
    const Size size = request.thumbnailInfoSize();
    for (const double side : {size.width, size.height}) {
        if (!std::isfinite(side) || side < 0) {
            return invalidArgument(kArgumentThumbnailInfoSize, "has a side that is not a length");
        }
    }
    if (auto error = checkKind(request, kArgumentThumbnailCount, Kind::Integer, "an integer")) {
        return error;
    }
    const Value* const count = findArgument(request, kArgumentThumbnailCount);
    return !count || (count->integerValue() >= 1 && count->integerValue() <= kMostThumbnails)
               ? std::nullopt
               : invalidArgument(kArgumentThumbnailCount, fmt::format("is not between 1 and {}", kMostThumbnails));
}

Checked checkMerge(const KRVOperationBase& request) {
    const Value* const sources = findArgument(request, kArgumentMergeSources);
    if (!sources) {
        return invalidArgument(kArgumentMergeSources, "is missing");
    }
    const auto list = sources->array();
    if (!list) {
        return invalidArgument(kArgumentMergeSources, "is not an array");
    }
    if (list->empty() || list->size() > kMostMergeSources) {
        return invalidArgument(kArgumentMergeSources,
                               list->empty() ? "is empty" : fmt::format("has more than {} entries", kMostMergeSources));
    }
    for (std::size_t i = 0; i < list->size(); ++i) {
        if (auto error = checkPathValue((*list)[i], kArgumentMergeSources, fmt::format("entry {} ", i))) {
            return error;
        }
    }
    if (auto error = checkKind(request, kArgumentMergeFrameRate, Kind::Float64, "a 64-bit float")) {
        return error;
    }
    if (auto error = checkKind(request, kArgumentMergeSize, Kind::Size, "a size")) {
        return error;
    }
    return checkKind(request, kArgumentMergeSourcesUseShortest, Kind::Boolean, "a boolean");
}

Checked checkInterestingTimes(const KRVOperationBase& request) {
    return checkKind(request, kArgumentTrackIndex, Kind::Integer, "an integer");
}

using Sources = MediaOperation::Sources;
using Destination = MediaOperation::Destination;
using Duration = MediaOperation::Duration;

constexpr std::array kEncodeArguments{&kArgumentEncodingType, &kArgumentEncodingFlattenOnly,
                                      &kArgumentEncodingVideoParameters, &kArgumentEncodingAudioParameters};
constexpr std::array kThumbnailArguments{&kArgumentThumbnailInfoSize, &kArgumentThumbnailCount};
constexpr std::array kMergeArguments{&kArgumentMergeSources, &kArgumentMergeSourcesUseShortest,
                                     &kArgumentMergeFrameRate, &kArgumentMergeSize};
constexpr std::array kTimesArguments{&kArgumentTrackIndex};

constexpr std::array<MediaOperation, 6> kTable{{
    {OpEncodeVideo, Sources::One, Destination::File, Duration::Long, kEncodeArguments, &checkEncode},
    {OpCreateThumbnails, Sources::One, Destination::Folder, Duration::Long, kThumbnailArguments, &checkThumbnails},
    {OpProvideMetadata, Sources::One, Destination::None, Duration::Short, {}, nullptr},
    {OpMuxAudioTo2ch, Sources::One, Destination::File, Duration::Long, {}, nullptr},
    {OpMergeSources, Sources::Many, Destination::File, Duration::Long, kMergeArguments, &checkMerge},
    {OpGetInterestingTimes, Sources::One, Destination::None, Duration::Short, kTimesArguments, &checkInterestingTimes},
}};

}  // namespace

std::span<const MediaOperation> mediaOperations() noexcept {
    return kTable;
}

const MediaOperation* mediaOperation(std::int32_t type) noexcept {
    for (const MediaOperation& row : kTable) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace krv::server
