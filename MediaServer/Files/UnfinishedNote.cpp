#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <random>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

#include <MediaServer/Files/UnfinishedNote.h>

namespace krv::server {
namespace {

constexpr std::string_view kHiddenPrefix = ".krv-";
constexpr std::string_view kHiddenSuffix = ".part";

std::string randomName() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

std::filesystem::path notesFolder() {
    const std::filesystem::path folder = stateFolder(kMediaServerName);
    if (folder.empty()) {
        return {};
    }
    std::error_code failure;
    std::filesystem::create_directories(folder / "unfinished", failure);
    return failure ? std::filesystem::path() : folder / "unfinished";
}

bool isHiddenPath(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return path.starts_with('/') && name.size() > kHiddenPrefix.size() + kHiddenSuffix.size() &&
           name.starts_with(kHiddenPrefix) && name.ends_with(kHiddenSuffix);
}

/// Locks a note without waiting. Returns whether the note is ours and still has its name.
bool lock(int note) {
    struct stat status {};
    return ::flock(note, LOCK_EX | LOCK_NB) == 0 && ::fstat(note, &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_nlink > 0;
}

}  // namespace

UnfinishedNote::UnfinishedNote(const std::string& hiddenPath) {
    const auto folder = notesFolder();
    if (folder.empty()) {
        return;
    }
    path_ = folder / randomName();
    file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file_) {
        path_.clear();
        return;
    }
    // Until it is locked the note is empty, so that a server that starts just now may remove it but nothing else.
    const bool written =
        lock(file_.get()) &&
        ::write(file_.get(), hiddenPath.data(), hiddenPath.size()) == static_cast<ssize_t>(hiddenPath.size()) &&
        ::fsync(file_.get()) == 0;
    if (!written) {
        remove();
    }
}

UnfinishedNote::UnfinishedNote(UnfinishedNote&& other) noexcept
    : file_(std::move(other.file_))
    , path_(std::exchange(other.path_, {})) {}

UnfinishedNote& UnfinishedNote::operator=(UnfinishedNote&& other) noexcept {
    if (this != &other) {
        remove();
        file_ = std::move(other.file_);
        path_ = std::exchange(other.path_, {});
    }
    return *this;
}

void UnfinishedNote::remove() {
    if (!path_.empty()) {
        ::unlink(path_.c_str());
        path_.clear();
    }
    file_.reset();
}

void UnfinishedNote::leave() {
    path_.clear();
    file_.reset();
}

void UnfinishedNote::sweep(const std::function<bool(const std::string& hiddenPath)>& clean) {
    std::error_code failure;
    for (std::filesystem::directory_iterator each(notesFolder(), failure), end; !failure && each != end;
         each.increment(failure)) {
        const std::string path = each->path();
        const Descriptor note(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
        if (!note || !lock(note.get())) {
            continue;
        }
        std::array<char, PATH_MAX> text{};
        const ssize_t length = ::read(note.get(), text.data(), text.size());
        const std::string hidden(text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        if (!isHiddenPath(hidden) || clean(hidden)) {
            ::unlink(path.c_str());
        }
    }
}

std::string UnfinishedNote::hiddenName() {
    return fmt::format("{}{}{}", kHiddenPrefix, randomName(), kHiddenSuffix);
}

}  // namespace krv::server
