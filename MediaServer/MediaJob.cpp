#include "MediaJob.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "ServerError.h"

namespace krv::server {
namespace {

using ErrorRef = std::shared_ptr<const Error>;

ErrorRef badArgument(std::string_view key, std::string_view why) {
    return makeError(ErrorCode::BadArgument, fmt::format("The request's argument \"{}\" cannot be used.", key),
                     fmt::format("\"{}\" {}", key, why));
}

ErrorRef checkPath(const KRVOperationBase& request, std::string_view key) {
    const auto arguments = request.arguments();
    const Value* const value = arguments ? arguments->find(key) : nullptr;
    if (!value) {
        return badArgument(key, "is missing");
    }
    if (value->kind() != Value::Kind::String) {
        return badArgument(key, "is no string");
    }
    const std::string& path = value->stringValue();
    if (path.empty() || path.front() != '/') {
        return badArgument(key, "is no absolute path");
    }
    return path.find('\0') == std::string::npos ? nullptr : badArgument(key, "holds a zero byte");
}

ErrorRef checkKind(const KRVOperationBase& request, std::string_view key, Value::Kind kind, std::string_view what) {
    const auto arguments = request.arguments();
    const Value* const value = arguments ? arguments->find(key) : nullptr;
    return !value || value->kind() == kind ? nullptr : badArgument(key, fmt::format("is no {}", what));
}

template <typename Parameters>
ErrorRef checkParameters(const KRVOperationBase& request, std::string_view key,
                         const std::shared_ptr<const Parameters>& parameters) {
    const auto arguments = request.arguments();
    return parameters || !arguments || !arguments->find(key)
               ? nullptr
               : badArgument(key, "holds no encoding parameters of its kind");
}

ErrorRef unreadable(const std::string& path, int number) {
    return makeError(ErrorCode::UnreadableSource, fmt::format("{} cannot be read.", path), std::strerror(number), path);
}

ErrorRef unusable(const std::string& path, std::string reason) {
    return makeError(ErrorCode::UnusableSource, fmt::format("{} is no media file.", path), std::move(reason), path);
}

}  // namespace

ErrorRef MediaJob::check(const KRVOperationBase& request) {
    for (const std::string_view key : {kArgumentEncodingSourceFilename, kArgumentEncodingDestinationFilename}) {
        if (auto error = checkPath(request, key)) {
            return error;
        }
    }
    if (auto error = checkKind(request, kArgumentEncodingType, Value::Kind::Integer, "integer")) {
        return error;
    }
    if (auto error = checkKind(request, kArgumentEncodingFlattenOnly, Value::Kind::Boolean, "boolean")) {
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
            ErrorCode::Unsupported, fmt::format("{} cannot be made.", *request.encodingDestinationFilename()),
            fmt::format("{} is no encoding type", request.encodingType()), *request.encodingDestinationFilename());
    }
    return nullptr;
}

std::unique_ptr<MediaJob> MediaJob::open(const KRVOperationBase::Ref& request, ErrorRef& error) {
    auto job = std::make_unique<MediaJob>();
    job->request = request;
    const std::string source = *request->encodingSourceFilename();
    const std::string destination = *request->encodingDestinationFilename();

    // A pipe without a writer must not hold the server up.
    Descriptor file(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat sourceStatus {};
    if (!file || ::fstat(file.get(), &sourceStatus) != 0) {
        error = unreadable(source, errno);
        return nullptr;
    }
    if (!S_ISREG(sourceStatus.st_mode)) {
        error = unusable(source, S_ISDIR(sourceStatus.st_mode) ? "it is a folder" : "it is no regular file");
        return nullptr;
    }
    if (sourceStatus.st_size == 0) {
        error = unusable(source, "the file is empty");
        return nullptr;
    }
    struct stat destinationStatus {};
    if (::stat(destination.c_str(), &destinationStatus) == 0 && destinationStatus.st_dev == sourceStatus.st_dev &&
        destinationStatus.st_ino == sourceStatus.st_ino) {
        error = makeError(ErrorCode::SameFile, fmt::format("{} cannot be converted onto itself.", source),
                          "source and destination are the same file", source);
        return nullptr;
    }
    job->sources.push_back(std::move(file));
    job->output = AtomicOutput::open(destination, error);
    return job->output ? std::move(job) : nullptr;
}

}  // namespace krv::server
