#include <array>
#include <cmath>

#include <fmt/format.h>

#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

using ErrorRef = std::shared_ptr<const Error>;
using Kind = Value::Kind;

ErrorRef badArgument(std::string_view key, std::string_view why) {
    return makeError(OperationErrorCode::InvalidArgument,
                     fmt::format("The request's argument \"{}\" cannot be used.", key),
                     fmt::format("\"{}\" {}", key, why));
}

const Value* argument(const KRVOperationBase& request, std::string_view key) {
    const auto arguments = request.arguments();
    return arguments ? arguments->find(key) : nullptr;
}

ErrorRef checkPathValue(const Value& value, std::string_view key, std::string_view which) {
    if (value.kind() != Kind::String) {
        return badArgument(key, fmt::format("{}is no string", which));
    }
    const std::string& path = value.stringValue();
    if (path.empty() || path.front() != '/') {
        return badArgument(key, fmt::format("{}is no absolute path", which));
    }
    return path.find('\0') == std::string::npos ? nullptr : badArgument(key, fmt::format("{}holds a zero byte", which));
}

ErrorRef checkPath(const KRVOperationBase& request, std::string_view key) {
    const Value* const value = argument(request, key);
    return value ? checkPathValue(*value, key, "") : badArgument(key, "is missing");
}

ErrorRef checkKind(const KRVOperationBase& request, std::string_view key, Kind kind, std::string_view what) {
    const Value* const value = argument(request, key);
    return !value || value->kind() == kind ? nullptr : badArgument(key, fmt::format("is no {}", what));
}

template <typename Parameters>
ErrorRef checkParameters(const KRVOperationBase& request, std::string_view key,
                         const std::shared_ptr<const Parameters>& parameters) {
    return parameters || !argument(request, key) ? nullptr
                                                 : badArgument(key, "holds no encoding parameters of its kind");
}

ErrorRef checkEncode(const KRVOperationBase& request) {
    if (auto error = checkKind(request, kArgumentEncodingType, Kind::Integer, "integer")) {
        return error;
    }
    if (auto error = checkKind(request, kArgumentEncodingFlattenOnly, Kind::Boolean, "boolean")) {
        return error;
    }
    if (auto error = checkParameters(request, kArgumentEncodingVideoParameters, request.encodingVideoParameters())) {
        return error;
    }
    if (auto error = checkParameters(request, kArgumentEncodingAudioParameters, request.encodingAudioParameters())) {
        return error;
    }
    if (VideoConversion::nameForType(request.encodingType()) == "Unknown") {
        return makeError(
            OperationErrorCode::Unsupported, fmt::format("{} cannot be made.", *request.encodingDestinationFilename()),
            fmt::format("{} is no encoding type", request.encodingType()), *request.encodingDestinationFilename());
    }
    return nullptr;
}

ErrorRef checkThumbnails(const KRVOperationBase& request) {
    if (auto error = checkKind(request, kArgumentThumbnailInfoSize, Kind::Size, "size")) {
        return error;
    }
    const Size size = request.thumbnailInfoSize();
    for (const double side : {size.width, size.height}) {
        if (!std::isfinite(side) || side < 0) {
            return badArgument(kArgumentThumbnailInfoSize, "has a side that is no length");
        }
    }
    if (auto error = checkKind(request, kArgumentThumbnailCount, Kind::Integer, "integer")) {
        return error;
    }
    const Value* const count = argument(request, kArgumentThumbnailCount);
    return !count || (count->integerValue() >= 1 && count->integerValue() <= kMostThumbnails)
               ? nullptr
               : badArgument(kArgumentThumbnailCount, fmt::format("is not in 1 to {}", kMostThumbnails));
}

ErrorRef checkMerge(const KRVOperationBase& request) {
    const Value* const sources = argument(request, kArgumentMergeSources);
    if (!sources) {
        return badArgument(kArgumentMergeSources, "is missing");
    }
    const auto list = sources->array();
    if (!list) {
        return badArgument(kArgumentMergeSources, "is no array");
    }
    if (list->empty() || list->size() > kMostMergeSources) {
        return badArgument(kArgumentMergeSources,
                           list->empty() ? "is empty" : fmt::format("has more than {} entries", kMostMergeSources));
    }
    for (std::size_t i = 0; i < list->size(); ++i) {
        if (auto error = checkPathValue((*list)[i], kArgumentMergeSources, fmt::format("entry {} ", i))) {
            return error;
        }
    }
    return checkKind(request, kArgumentMergeSourcesUseShortest, Kind::Boolean, "boolean");
}

ErrorRef checkInterestingTimes(const KRVOperationBase& request) {
    return checkKind(request, kArgumentTrackIndex, Kind::Integer, "integer");
}

/// What a type's request needs.
struct Row {
    OperationType type;
    bool source;
    bool destination;
    ErrorRef (*check)(const KRVOperationBase&);
};
constexpr std::array<Row, 6> kRows{{
    {OpEncodeVideo, true, true, &checkEncode},
    {OpCreateThumbnails, true, true, &checkThumbnails},
    {OpProvideMetadata, true, false, nullptr},
    {OpMuxAudioTo2ch, true, true, nullptr},
    {OpMergeSources, false, true, &checkMerge},
    {OpGetInterestingTimes, true, false, &checkInterestingTimes},
}};

}  // namespace

ErrorRef checkMediaRequest(const KRVOperationBase& request) {
    for (const Row& row : kRows) {
        if (row.type != request.operationType()) {
            continue;
        }
        ErrorRef error;
        if (row.source) {
            error = checkPath(request, kArgumentEncodingSourceFilename);
        }
        if (!error && row.destination) {
            error = checkPath(request, kArgumentEncodingDestinationFilename);
        }
        return error || !row.check ? error : row.check(request);
    }
    return makeError(OperationErrorCode::InvalidArgument, "The media server does not know this operation.",
                     fmt::format("operation type {} is no media work", request.operationType()));
}

std::vector<std::string> sourcesOf(const KRVOperationBase& request) {
    if (request.operationType() != OpMergeSources) {
        return {request.encodingSourceFilename().value_or("")};
    }
    std::vector<std::string> sources;
    const Value* const value = argument(request, kArgumentMergeSources);
    const auto list = value ? value->array() : nullptr;
    for (std::size_t i = 0; list && i < list->size(); ++i) {
        sources.push_back((*list)[i].stringValue());
    }
    return sources;
}

int thumbnailCountOf(const KRVOperationBase& request) {
    const Value* const count = argument(request, kArgumentThumbnailCount);
    return count ? static_cast<int>(count->integerValue()) : kStandardThumbnailCount;
}

std::string describeSources(const KRVOperationBase& request) {
    const auto sources = sourcesOf(request);
    if (sources.empty()) {
        return "nothing";
    }
    return sources.size() == 1 ? sources.front() : fmt::format("{} and {} more", sources.front(), sources.size() - 1);
}

}  // namespace krv::server
