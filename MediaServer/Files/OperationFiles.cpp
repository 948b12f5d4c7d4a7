#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Files/MountTable.h>
#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

Failure unusable(FailureCause cause, std::size_t source, int errorNumber = 0) {
    return {.cause = cause, .errorNumber = errorNumber, .source = source};
}

Descriptor openToRead(const std::string& path) {
    constexpr int kRead = O_RDONLY | O_CLOEXEC | O_NOCTTY;
    // A pipe without a writer must not hold the server up.
    Descriptor file(::open(path.c_str(), kRead | O_NONBLOCK));
    if (!file && errno == EWOULDBLOCK) {
        // Another program has a lease on this regular file, as file servers do. The kernel now waits for it to give the
        // lease up, and takes it away if that lasts too long.
        file.reset(::open(path.c_str(), kRead));
    }
    return file;
}

Descriptor openSource(const std::string& path, std::size_t number, struct stat& status,
                      std::optional<Failure>& failure) {
    Descriptor file = openToRead(path);
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

std::optional<Failure> OperationFiles::openSources(const std::vector<std::string>& paths,
                                                   const std::string& destination, const OnAccess& onAccess) {
    const MountTable mounts = MountTable::current();
    std::vector<struct stat> statuses;
    std::optional<Failure> failure;
    const auto follow = [&](const std::string& path, std::size_t number, dev_t& drive) {
        return mounts.follow(path, [&](dev_t next) { return onAccess(number, drive = next); });
    };
    for (const std::string& path : paths) {
        const std::size_t number = sources_.size();
        dev_t drive = MountTable::kUnknownDrive;
        if (!follow(path, number, drive)) {
            return unusable(FailureCause::SourceDoesNotRespond, number);
        }
        struct stat status {};
        Descriptor file = openSource(path, number, status, failure);
        if (!file) {
            return failure;
        }
        statuses.push_back(status);
        sources_.push_back({std::move(file), drive, FileState(status)});
    }
    if (!destination.empty() && !follow(destination, paths.size(), outputDrive_)) {
        return Failure{.cause = FailureCause::DestinationDoesNotRespond};
    }
    for (std::size_t number = 0; !destination.empty() && number < statuses.size(); ++number) {
        if (isSameFile(statuses[number], destination)) {
            return unusable(FailureCause::SameFile, number);
        }
    }
    return std::nullopt;
}

std::unique_ptr<OperationFiles> OperationFiles::open(const KRVOperationBase& request, const OnAccess& onAccess,
                                                     std::optional<Failure>& failure) {
    const MediaOperation* const operation = mediaOperation(request.operationType());
    if (!operation) {
        failure =
            Failure{.cause = FailureCause::UnknownOperationType, .subject = std::to_string(request.operationType())};
        return nullptr;
    }
    auto files = std::make_unique<OperationFiles>();
    const std::string destination = request.encodingDestinationFilename().value_or("");
    if ((failure = files->openSources(sourcesOf(request), destination, onAccess))) {
        return nullptr;
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
    for (const Source& source : sources_) {
        all.push_back(source.file.get());
    }
    if (file_) {
        all.push_back(file_->descriptor());
    }
    if (folder_) {
        all.push_back(folder_->descriptor());
    }
    return all;
}

void OperationFiles::closeOutput() {
    file_.reset();
    folder_.reset();
}

void OperationFiles::closeSources(const std::function<void(dev_t drive)>& onDrive) {
    for (Source& source : sources_) {
        onDrive(source.drive);
        source.file.reset();
    }
    sources_.clear();
}

std::optional<Failure> OperationFiles::flush(const std::function<bool()>& onProgress) {
    // Thumbnails are flushed when they are committed.
    const int errorNumber = file_ ? flushGradually(file_->descriptor(), onProgress) : 0;
    if (errorNumber == 0) {
        return std::nullopt;
    }
    return Failure{.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = destination_};
}

bool OperationFiles::commit(KRVOperationBase& record, const Placing& placing, std::optional<Failure>& failure) {
    if (folder_) {
        return folder_->commit(record, placing, failure);
    }
    if (!placing.onProgress()) {
        return false;
    }
    if (file_ && (failure = file_->place())) {
        return false;
    }
    if (!placing.decide()) {
        return false;  // the destructor takes it back
    }
    if (file_) {
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
