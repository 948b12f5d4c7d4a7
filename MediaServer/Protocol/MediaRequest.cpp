#include <fmt/format.h>

#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/RequestArguments.h>

namespace krv::server {

std::optional<Failure> checkMediaRequest(const KRVOperationBase& request) {
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (!operation) {
        return Failure{.cause = FailureCause::UnknownOperationType, .subject = std::to_string(request.operationType())};
    }
    std::optional<Failure> failure;
    if (operation->sources == MediaOperation::Sources::One) {
        failure = checkPath(request, kArgumentEncodingSourceFilename);
    }
    if (!failure && operation->destination != MediaOperation::Destination::None) {
        failure = checkPath(request, kArgumentEncodingDestinationFilename);
    }
    return failure || !operation->check ? failure : operation->check(request);
}

KRVOperationBase::Ref withKnownArguments(const KRVOperationBase& request) {
    auto copy = std::make_shared<KRVOperationBase>();
    copy->setOperationType(request.operationType());
    const auto keep = [&](std::string_view key) {
        if (const Value* const value = findArgument(request, key)) {
            copy->arguments()->set(key, *value);
        }
    };
    keep(kArgumentPIDRegInfo);
    if (const MediaOperation* const operation = mediaOperation(request.operationType())) {
        if (operation->sources == MediaOperation::Sources::One) {
            keep(kArgumentEncodingSourceFilename);
        }
        if (operation->destination != MediaOperation::Destination::None) {
            keep(kArgumentEncodingDestinationFilename);
        }
        for (const std::string_view* const key : operation->arguments) {
            keep(*key);
        }
    }
    return copy;
}

std::vector<std::string> sourcesOf(const KRVOperationBase& request) {
    std::vector<std::string> sources;
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (!operation || operation->sources == MediaOperation::Sources::One) {
        if (auto path = request.encodingSourceFilename()) {
            sources.push_back(*std::move(path));
        }
        return sources;
    }
    const Value* const value = findArgument(request, kArgumentMergeSources);
    const auto list = value ? value->array() : nullptr;
    for (std::size_t i = 0; list && i < list->size(); ++i) {
        if ((*list)[i].kind() == Value::Kind::String) {
            sources.push_back((*list)[i].stringValue());
        }
    }
    return sources;
}

int thumbnailCountOf(const KRVOperationBase& request) {
    const Value* const count = findArgument(request, kArgumentThumbnailCount);
    return count ? static_cast<int>(count->integerValue()) : kStandardThumbnailCount;
}

}  // namespace krv::server
