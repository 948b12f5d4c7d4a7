#include <cerrno>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

constexpr mode_t kEverybody = 0777;

Failure inconsistentReport() {
    return {.cause = FailureCause::InternalError, .reason = "the worker's list of thumbnails is inconsistent"};
}

Failure unwritable(std::string path, int errorNumber) {
    return {.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = std::move(path)};
}

}  // namespace

ThumbnailFolder::ThumbnailFolder(std::string folder)
    : asGiven_(std::move(folder)) {}

ThumbnailFolder::~ThumbnailFolder() {
    pictures_.reset();
    struct stat ours {};
    struct stat there {};
    if (made_ && ::fstat(folder_.get(), &ours) == 0 && ::lstat(asGiven_.c_str(), &there) == 0 &&
        ours.st_dev == there.st_dev && ours.st_ino == there.st_ino) {
        ::rmdir(asGiven_.c_str());  // fails on a folder that is not empty
    }
}

std::unique_ptr<ThumbnailFolder> ThumbnailFolder::open(const std::string& folder, std::optional<Failure>& failure) {
    std::unique_ptr<ThumbnailFolder> result(new ThumbnailFolder(folder));
    if (::mkdir(folder.c_str(), kEverybody) == 0) {
        result->made_ = true;
    } else if (errno != EEXIST) {
        failure = unwritable(folder, errno);
        return nullptr;
    }
    result->folder_ = openFolder(AT_FDCWD, folder);
    if (!result->folder_) {
        failure = unwritable(folder, errno);
        return nullptr;
    }
    // The name is never used: only the unnamed file is needed.
    result->pictures_ = AtomicOutput::open(
        Destination(openFolder(result->folder_.get(), "."), UnfinishedNote::hiddenName(), folder), failure);
    return result->pictures_ ? std::move(result) : nullptr;
}

std::optional<Failure> ThumbnailFolder::copyPicture(FileGroup& files, const std::string& name,
                                                    const Dictionary& picture) const {
    off_t offset = picture[kThumbnailOffset].integerValue();
    std::int64_t left = picture[kThumbnailLength].integerValue();
    struct stat status {};
    if (::fstat(pictures_->descriptor(), &status) != 0 || offset < 0 || left <= 0 || left > status.st_size - offset) {
        return inconsistentReport();
    }
    std::optional<Failure> failure;
    const Descriptor file = files.create(name, failure);
    while (file && left > 0) {
        const ssize_t copied = ::sendfile(file.get(), pictures_->descriptor(), &offset, static_cast<std::size_t>(left));
        if (copied < 0 && errno == EINTR) {
            continue;
        }
        if (copied <= 0) {
            return unwritable(fmt::format("{}/{}", asGiven_, name), copied < 0 ? errno : EIO);
        }
        left -= copied;
    }
    if (file) {
        // Only starts it: all files are written at the same time, and waited for later.
        ::sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    return failure;
}

bool ThumbnailFolder::commit(KRVOperationBase& record, const Placing& placing, std::optional<Failure>& failure) {
    const auto result = record.result();
    const auto list = result ? (*result)[kResultThumbnails].array() : nullptr;
    if (!list || list->empty()) {
        failure = inconsistentReport();
        return false;
    }
    const auto files = FileGroup::open(
        folder_.get(), asGiven_, [&] { (void)placing.onProgress(); }, failure);
    if (!files) {
        return false;
    }
    Array told;
    std::vector<std::string> names;
    for (const Value& entry : *list) {
        const auto picture = entry.dictionary();
        const std::string name = fmt::format("thumbnail-{:04}.jpg", names.size() + 1);
        failure = picture ? copyPicture(*files, name, *picture) : inconsistentReport();
        names.push_back(name);
        if (failure || !placing.onProgress()) {
            return false;
        }
        told.push_back(std::make_shared<Dictionary>(
            Dictionary{{kResultThumbnailPath, (std::filesystem::path(asGiven_) / name).string()},
                       {kResultThumbnailTime, (*picture)[kResultThumbnailTime].doubleValue()}}));
    }
    for (const std::string& name : names) {
        if ((failure = files->flushContents(name)) || !placing.onProgress()) {
            return false;
        }
    }
    if ((failure = files->flush(placing.onProgress)) || !placing.onProgress()) {
        return false;
    }
    for (const std::string& name : names) {
        if ((failure = files->place(name)) || !placing.onProgress()) {
            return false;
        }
    }
    files->flushNames(placing.onProgress);
    if (!placing.decide() || (failure = files->keep())) {
        return false;
    }
    made_ = false;
    Dictionary completed = result->mutableCopy();
    completed.set(kResultThumbnails, std::move(told));
    record.setResult(std::make_shared<Dictionary>(std::move(completed)));
    return true;
}

}  // namespace krv::server
