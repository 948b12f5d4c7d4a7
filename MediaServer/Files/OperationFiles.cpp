#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

Failure unusable(FailureCause cause, std::size_t source, int errorNumber = 0) {
    return {.cause = cause, .errorNumber = errorNumber, .source = source};
}

Descriptor openSource(const std::string& path, std::size_t number, struct stat& status,
                      std::optional<Failure>& failure) {
    // A pipe without a writer must not hold the server up.
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file || ::fstat(file.get(), &status) != 0) {
        failure = unusable(FailureCause::UnreadableSource, number, errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        failure =
            unusable(S_ISDIR(status.st_mode) ? FailureCause::SourceIsFolder : FailureCause::SourceIsNotAFile, number);
        return {};
    }
    if (status.st_size == 0) {
        failure = unusable(FailureCause::SourceIsEmpty, number);
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

std::unique_ptr<OperationFiles> OperationFiles::open(const KRVOperationBase& request,
                                                     const std::function<void(std::size_t file)>& onFile,
                                                     std::optional<Failure>& failure) {
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (!operation) {
        failure =
            Failure{.cause = FailureCause::UnknownOperationType, .subject = std::to_string(request.operationType())};
        return nullptr;
    }
    auto files = std::make_unique<OperationFiles>();
    const std::string destination = request.encodingDestinationFilename().value_or("");
    const std::vector<std::string> sources = sourcesOf(request);
    std::vector<struct stat> statuses;
    for (const std::string& path : sources) {
        struct stat status {};
        const std::size_t number = files->sources_.size();
        onFile(number);
        Descriptor file = openSource(path, number, status, failure);
        if (!file) {
            return nullptr;
        }
        statuses.push_back(status);
        files->sources_.push_back(std::move(file));
    }
    onFile(sources.size());
    for (std::size_t number = 0; !destination.empty() && number < statuses.size(); ++number) {
        if (isSameFile(statuses[number], destination)) {
            failure = unusable(FailureCause::SameFile, number);
            return nullptr;
        }
    }
    switch (operation->destination) {
    case MediaOperation::Destination::File:
        files->destination_ = destination;
        files->file_ = AtomicOutput::open(destination, failure);
        return files->file_ ? std::move(files) : nullptr;
    case MediaOperation::Destination::Folder:
        files->folder_ = ThumbnailFolder::open(destination, failure);
        return files->folder_ ? std::move(files) : nullptr;
    case MediaOperation::Destination::None:
        break;
    }
    return files;
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

std::optional<Failure> OperationFiles::flush(const std::function<bool()>& onProgress) {
    // Thumbnails are flushed when they are committed.
    const int errorNumber = file_ ? flushGradually(file_->descriptor(), onProgress) : 0;
    if (errorNumber == 0) {
        return std::nullopt;
    }
    return Failure{.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = destination_};
}

bool OperationFiles::commit(KRVOperationBase& record, const std::function<bool()>& onProgress,
                            std::optional<Failure>& failure) {
    if (folder_) {
        return folder_->commit(record, onProgress, failure);
    }
    if (!onProgress()) {
        return false;
    }
    if (file_) {
        if ((failure = file_->place()) || !onProgress()) {
            return false;  // the destructor takes it back
        }
        file_->keep();
    }
    return true;
}

void OperationFiles::sweep() {
    UnfinishedNote::sweep([](const std::string& hidden) {
        struct stat status {};
        if (::lstat(hidden.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            return FileGroup::clean(hidden);
        }
        return ::unlink(hidden.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR;
    });
}

}  // namespace krv::server
