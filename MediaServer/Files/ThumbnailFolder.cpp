#include <cerrno>
#include <vector>

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
    if (made_) {
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
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        failure = unwritable(folder, ENOTDIR);
        return nullptr;
    }
    // The name is never used: only the unnamed file is needed.
    result->pictures_ = AtomicOutput::open((std::filesystem::path(folder) / "thumbnails").string(), failure);
    if (!result->pictures_) {
        failure->path = folder;
        return nullptr;
    }
    return result;
}

std::unique_ptr<AtomicOutput> ThumbnailFolder::copyPicture(const std::string& path, const Dictionary& picture,
                                                           std::optional<Failure>& failure) const {
    off_t offset = picture[kThumbnailOffset].integerValue();
    std::int64_t left = picture[kThumbnailLength].integerValue();
    struct stat status {};
    if (::fstat(pictures_->descriptor(), &status) != 0 || offset < 0 || left <= 0 || left > status.st_size - offset) {
        failure = inconsistentReport();
        return nullptr;
    }
    auto file = AtomicOutput::open(path, failure);
    while (file && left > 0) {
        const ssize_t copied =
            ::sendfile(file->descriptor(), pictures_->descriptor(), &offset, static_cast<std::size_t>(left));
        if (copied < 0 && errno == EINTR) {
            continue;
        }
        if (copied <= 0) {
            failure = unwritable(path, copied < 0 ? errno : EIO);
            return nullptr;
        }
        left -= copied;
    }
    return file;
}

std::optional<Failure> ThumbnailFolder::commit(KRVOperationBase& record) {
    const auto result = record.result();
    const auto list = result ? (*result)[kResultThumbnails].array() : nullptr;
    if (!list || list->empty()) {
        return inconsistentReport();
    }
    std::optional<Failure> failure;
    Array told;
    std::vector<std::unique_ptr<AtomicOutput>> files;
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto picture = (*list)[i].dictionary();
        if (!picture) {
            return inconsistentReport();
        }
        const auto path = (std::filesystem::path(asGiven_) / fmt::format("thumbnail-{:04}.jpg", i + 1)).string();
        auto file = copyPicture(path, *picture, failure);
        if (!file) {
            return failure;
        }
        files.push_back(std::move(file));
        told.push_back(std::make_shared<Dictionary>(Dictionary{
            {kResultThumbnailPath, path}, {kResultThumbnailTime, (*picture)[kResultThumbnailTime].doubleValue()}}));
    }
    for (const auto& file : files) {
        if ((failure = file->place())) {
            return failure;  // the destructors take back the files that have been placed
        }
    }
    for (const auto& file : files) {
        file->keep();
    }
    made_ = false;
    record.setResult(std::make_shared<Dictionary>(Dictionary{{kResultThumbnails, std::move(told)}}));
    return std::nullopt;
}

}  // namespace krv::server
