#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

using ErrorRef = std::shared_ptr<const Error>;

ErrorRef unreadable(const std::string& path, int number) {
    return makeError(OperationErrorCode::UnreadableSource, fmt::format("{} cannot be read.", path),
                     std::strerror(number), path);
}

ErrorRef unusable(const std::string& path, std::string reason) {
    return makeError(OperationErrorCode::UnusableSource, fmt::format("{} is no media file.", path), std::move(reason),
                     path);
}

Descriptor openSource(const std::string& path, struct stat& status, ErrorRef& error) {
    // A pipe without a writer must not hold the server up.
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file || ::fstat(file.get(), &status) != 0) {
        error = unreadable(path, errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        error = unusable(path, S_ISDIR(status.st_mode) ? "it is a folder" : "it is no regular file");
        return {};
    }
    if (status.st_size == 0) {
        error = unusable(path, "the file is empty");
        return {};
    }
    return file;
}

bool isSameFile(const struct stat& source, const std::string& destination) {
    struct stat status {};
    return ::stat(destination.c_str(), &status) == 0 && status.st_dev == source.st_dev &&
           status.st_ino == source.st_ino;
}

}  // namespace

std::unique_ptr<OperationFiles> OperationFiles::open(const KRVOperationBase::Ref& request, ErrorRef& error) {
    auto job = std::make_unique<OperationFiles>();
    job->request_ = request;
    const std::string destination = request->encodingDestinationFilename().value_or("");
    for (const std::string& path : sourcesOf(*request)) {
        struct stat status {};
        Descriptor file = openSource(path, status, error);
        if (!file) {
            return nullptr;
        }
        if (!destination.empty() && isSameFile(status, destination)) {
            error = makeError(OperationErrorCode::SameFile, fmt::format("{} cannot be converted onto itself.", path),
                              "source and destination are the same file", path);
            return nullptr;
        }
        job->sources_.push_back(std::move(file));
    }
    switch (request->operationType()) {
    case OpEncodeVideo:
    case OpMuxAudioTo2ch:
    case OpMergeSources:
        job->file_ = AtomicOutput::open(destination, error);
        return job->file_ ? std::move(job) : nullptr;
    case OpCreateThumbnails:
        job->folder_ = ThumbnailFolder::open(destination, error);
        return job->folder_ ? std::move(job) : nullptr;
    default:
        return job;
    }
}

std::vector<int> OperationFiles::descriptors() const {
    std::vector<int> all;
    for (const Descriptor& source : sources_) {
        all.push_back(source.get());
    }
    if (file_) {
        all.push_back(file_->descriptor());
    }
    if (folder_) {
        all.push_back(folder_->descriptor());
    }
    return all;
}

ErrorRef OperationFiles::flush(const std::function<bool()>& onLife) {
    // Pictures are small.
    const int number = file_ ? flushGradually(file_->descriptor(), onLife) : 0;
    return number == 0 ? nullptr : unwritable(request_->encodingDestinationFilename().value_or(""), number);
}

ErrorRef OperationFiles::commit(KRVOperationBase& record) {
    if (file_) {
        return file_->commit();
    }
    return folder_ ? folder_->commit(record) : nullptr;
}

}  // namespace krv::server
