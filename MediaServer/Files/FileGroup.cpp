#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <fmt/format.h>

#include <MediaServer/Files/Destination.h>
#include <MediaServer/Files/FileGroup.h>
#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Files/ReplacedFile.h>

namespace krv::server {
namespace {

constexpr const char* kNew = "new";
constexpr const char* kOld = "old";
constexpr const char* kDone = "done";
constexpr mode_t kReadWrite = 0666;

Descriptor openOwnFolder(int base, const char* name) {
    Descriptor folder(::openat(base, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (folder && (::fstat(folder.get(), &status) != 0 || status.st_uid != ::geteuid())) {
        folder.reset();
    }
    return folder;
}

std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    // The stream takes ownership of its descriptor.
    const int own = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const stream = own < 0 ? nullptr : ::fdopendir(own);
    if (!stream) {
        if (own >= 0) {
            ::close(own);
        }
        return names;
    }
    while (const dirent* const entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(stream);
    return names;
}

void removeFolder(int base, const char* name, const std::function<void()>& onProgress) {
    if (const Descriptor folder = openOwnFolder(base, name)) {
        for (const std::string& each : namesIn(folder.get())) {
            ::unlinkat(folder.get(), each.c_str(), 0);
            onProgress();
        }
    }
    ::unlinkat(base, name, AT_REMOVEDIR);
}

/// Removes everything in the hidden folder. It must be empty of files that are worth something.
void empty(int hidden, const std::function<void()>& onProgress) {
    for (const char* const name : {kNew, kOld, kDone}) {
        removeFolder(hidden, name, onProgress);
    }
}

bool isUnsupported(int errorNumber) {
    return errorNumber == EPERM || errorNumber == EOPNOTSUPP || errorNumber == EINVAL || errorNumber == ENOSYS ||
           errorNumber == EMLINK;
}

}  // namespace

FileGroup::FileGroup(int folder, std::string path, std::function<void()> onProgress)
    : folder_(folder)
    , path_(std::move(path))
    , onProgress_(std::move(onProgress))
    , hiddenName_(UnfinishedNote::hiddenName()) {}

std::unique_ptr<FileGroup> FileGroup::open(int folder, const std::string& path, std::function<void()> onProgress,
                                           std::optional<Failure>& failure) {
    std::unique_ptr<FileGroup> group(new FileGroup(folder, path, std::move(onProgress)));
    failure = group->make();
    return failure ? nullptr : std::move(group);
}

std::optional<Failure> FileGroup::make() {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = ::readlink(fmt::format("/proc/self/fd/{}", folder_).c_str(), path.data(), path.size());
    if (length > 0) {
        const std::string here(path.data(), static_cast<std::size_t>(length));
        note_ = UnfinishedNote(fmt::format("{}/{}", here, hiddenName_));
    }
    if (::mkdirat(folder_, hiddenName_.c_str(), S_IRWXU) != 0) {
        return unwritable({}, errno);
    }
    hidden_ = openOwnFolder(folder_, hiddenName_.c_str());
    if (!hidden_ || ::mkdirat(hidden_.get(), kNew, S_IRWXU) != 0 || ::mkdirat(hidden_.get(), kOld, S_IRWXU) != 0) {
        return unwritable({}, errno);
    }
    new_ = openOwnFolder(hidden_.get(), kNew);
    old_ = openOwnFolder(hidden_.get(), kOld);
    return new_ && old_ ? std::nullopt : std::optional(unwritable({}, errno));
}

FileGroup::~FileGroup() {
    if (kept_) {
        return;
    }
    bool restored = true;
    for (const auto& [name, identity] : files_) {
        restored = takeBack(folder_, new_.get(), old_.get(), name, identity) && restored;
        onProgress_();
    }
    if (!restored) {
        note_.leave();
        return;
    }
    if (hidden_) {
        empty(hidden_.get(), onProgress_);
    }
    ::unlinkat(folder_, hiddenName_.c_str(), AT_REMOVEDIR);
}

std::string FileGroup::pathOf(const std::string& name) const {
    return name.empty() ? path_ : fmt::format("{}/{}", path_, name);
}

Failure FileGroup::unwritable(const std::string& name, int errorNumber) const {
    return {.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = pathOf(name)};
}

std::optional<FileGroup::Identity> FileGroup::identityOf(int folder, const std::string& name) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return Identity(status.st_dev, status.st_ino);
}

Descriptor FileGroup::create(const std::string& name, std::optional<Failure>& failure) {
    if ((failure = refusalToReplace(folder_, name, pathOf(name)))) {
        return {};
    }
    // Nobody else can enter the hidden folder, so the file has its final permissions from the start.
    Descriptor file(::openat(new_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kReadWrite));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        failure = unwritable(name, errno);
        return {};
    }
    files_.emplace(name, Identity(status.st_dev, status.st_ino));
    inheritFrom(folder_, name, file.get());
    return file;
}

std::optional<Failure> FileGroup::flushContents(const std::string& name) {
    const Descriptor file(::openat(new_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const int errorNumber = file ? flushGradually(file.get(), [] { return true; }) : errno;
    return errorNumber == 0 ? std::nullopt : std::optional(unwritable(name, errorNumber));
}

std::optional<Failure> FileGroup::flush(const std::function<bool()>& onProgress) {
    const int errorNumber = flushFileSystem(hidden_.get(), onProgress);
    return errorNumber == 0 ? std::nullopt : std::optional(unwritable({}, errorNumber));
}

std::optional<Failure> FileGroup::place(const std::string& name) {
    if (auto refusal = refusalToReplace(folder_, name, pathOf(name))) {
        return refusal;
    }
    const bool done = placeNew(name) || (errno == EEXIST && (exchange(name) || (errno == ENOENT && placeNew(name))));
    return done ? std::nullopt : std::optional(unwritable(name, errno));
}

bool FileGroup::placeNew(const std::string& name) const {
    if (::linkat(new_.get(), name.c_str(), folder_, name.c_str(), 0) == 0) {
        return true;
    }
    if (!isUnsupported(errno)) {
        return false;
    }
    if (::renameat2(new_.get(), name.c_str(), folder_, name.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (!isUnsupported(errno)) {
        return false;
    }
    if (identityOf(folder_, name)) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(new_.get(), name.c_str(), folder_, name.c_str()) == 0;
}

bool FileGroup::exchange(const std::string& name) const {
    const char* const each = name.c_str();
    if (::linkat(new_.get(), each, old_.get(), each, 0) == 0) {
        if (::renameat2(old_.get(), each, folder_, each, RENAME_EXCHANGE) == 0) {
            return true;
        }
        const int errorNumber = errno;
        ::unlinkat(old_.get(), each, 0);
        errno = errorNumber;
    }
    if (!isUnsupported(errno)) {
        return false;
    }
    return ::renameat(folder_, each, old_.get(), each) == 0 && ::renameat(new_.get(), each, folder_, each) == 0;
}

void FileGroup::flushNames(const std::function<bool()>& onProgress) const {
    (void)server::flushNames(folder_, onProgress);
}

std::optional<Failure> FileGroup::keep() {
    if (::renameat(hidden_.get(), kNew, hidden_.get(), kDone) != 0) {
        return unwritable({}, errno);
    }
    kept_ = true;
    empty(hidden_.get(), onProgress_);
    ::unlinkat(folder_, hiddenName_.c_str(), AT_REMOVEDIR);
    flushFolder(folder_);
    return std::nullopt;
}

bool FileGroup::takeBack(int folder, int made, int old, const std::string& name, std::optional<Identity> ours) {
    if (!ours) {
        ours = identityOf(made, name);
    }
    const auto saved = identityOf(old, name);
    const auto there = identityOf(folder, name);
    // Before the exchange, "old" has a link to our own file.
    const bool hasOld = saved && saved != ours;
    const bool isOurs = there && there == ours;
    if (hasOld && (isOurs || !there || !ours)) {
        return ::renameat(old, name.c_str(), folder, name.c_str()) == 0;
    }
    return !isOurs || ::unlinkat(folder, name.c_str(), 0) == 0;
}

bool FileGroup::clean(const std::string& hiddenPath) {
    const auto slash = hiddenPath.rfind('/');
    const Descriptor folder = openFolder(AT_FDCWD, hiddenPath.substr(0, slash + 1));
    if (!folder) {
        return errno == ENOENT || errno == ENOTDIR;
    }
    const std::string name = hiddenPath.substr(slash + 1);
    const Descriptor hidden = openOwnFolder(folder.get(), name.c_str());
    if (!hidden) {
        return errno == ENOENT || errno == ENOTDIR;
    }
    const Descriptor made = openOwnFolder(hidden.get(), kNew);
    const Descriptor old = openOwnFolder(hidden.get(), kOld);
    bool restored = true;
    if (made && old) {
        for (const int each : {made.get(), old.get()}) {
            for (const std::string& file : namesIn(each)) {
                restored = takeBack(folder.get(), made.get(), old.get(), file, std::nullopt) && restored;
            }
        }
    }
    if (!restored) {
        return false;
    }
    empty(hidden.get(), [] {});
    return ::unlinkat(folder.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

}  // namespace krv::server
