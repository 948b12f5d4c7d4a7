#include <array>
#include <cerrno>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/Destination.h>

namespace krv::server {
namespace {

/// As many as the kernel follows.
constexpr int kMostLinks = 40;

/// Splits a path into folder and name. The name is empty if the path can only mean a folder.
std::pair<std::string, std::string> split(const std::string& path) {
    const auto slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string name = path.substr(slash + 1);
    if (name == "." || name == "..") {
        name.clear();
    }
    return {std::move(folder), std::move(name)};
}

/// Returns whether a user owns something as far as the sticky bit of its folder matters.
bool ownsIn(const struct stat& folder, const struct stat& entry) {
    const uid_t user = ::geteuid();
    return user == 0 || user == entry.st_uid || user == folder.st_uid;
}

Failure unwritable(const std::string& path, int errorNumber) {
    return {.cause = FailureCause::UnwritableDestination, .errorNumber = errorNumber, .path = path};
}

/// Returns 0 if this user may follow a link, else the error number. In a sticky folder that everybody can write to,
/// another user may have left the link as a trap. Kernels are configured to refuse it (fs.protected_symlinks).
int refusalToFollow(int folder, const struct stat& link) {
    struct stat status {};
    if (::fstat(folder, &status) != 0) {
        return errno;
    }
    const bool open = (status.st_mode & S_ISVTX) != 0 && (status.st_mode & S_IWOTH) != 0;
    return open && link.st_uid != ::geteuid() && link.st_uid != status.st_uid ? EACCES : 0;
}

}  // namespace

Destination::Destination(Descriptor folder, std::string name, std::string path)
    : folder_(std::move(folder))
    , name_(std::move(name))
    , path_(std::move(path)) {}

std::optional<Destination> Destination::open(const std::string& path, std::optional<Failure>& failure) {
    Destination place({}, {}, path);
    const auto refused = [&](int errorNumber) {
        failure = place.unwritable(errorNumber);
        return std::nullopt;
    };
    std::string rest = path;
    for (int links = 0; links <= kMostLinks; ++links) {
        const auto [folder, name] = split(rest);
        place.folder_ = openFolder(place.folder_ ? place.folder_.get() : AT_FDCWD, folder);
        if (!place.folder_) {
            return refused(errno);
        }
        if (name.empty()) {
            return refused(EISDIR);
        }
        place.name_ = name;
        struct stat status {};
        if (::fstatat(place.folder_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISLNK(status.st_mode)) {
            failure = place.refusal();
            return failure ? std::nullopt : std::optional(std::move(place));
        }
        if (const int errorNumber = refusalToFollow(place.folder_.get(), status)) {
            return refused(errorNumber);
        }
        std::array<char, PATH_MAX> target{};
        const ssize_t length = ::readlinkat(place.folder_.get(), name.c_str(), target.data(), target.size());
        if (length < 0) {
            return refused(errno);
        }
        rest.assign(target.data(), static_cast<std::size_t>(length));
    }
    return refused(ELOOP);
}

std::string Destination::folderPath() const {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = ::readlink(fmt::format("/proc/self/fd/{}", folder_.get()).c_str(), path.data(), path.size());
    return length < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

std::optional<Failure> Destination::refusal() const {
    return refusalToReplace(folder(), name_, path_);
}

Failure Destination::unwritable(int errorNumber) const {
    return server::unwritable(path_, errorNumber);
}

std::optional<Failure> refusalToReplace(int folder, const std::string& name, const std::string& path) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? std::nullopt : std::optional(unwritable(path, errno));
    }
    if (S_ISDIR(status.st_mode)) {
        return unwritable(path, EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        return Failure{.cause = FailureCause::DestinationIsNotAFile, .path = path};
    }
    if (::faccessat(folder, name.c_str(), W_OK, AT_EACCESS) != 0) {
        return unwritable(path, errno);
    }
    struct stat parent {};
    if (::fstat(folder, &parent) != 0) {
        return unwritable(path, errno);
    }
    if ((parent.st_mode & S_ISVTX) != 0 && !ownsIn(parent, status)) {
        return Failure{.cause = FailureCause::DestinationOfAnotherUser, .path = path};
    }
    return std::nullopt;
}

Descriptor openFolder(int base, const std::string& path) {
    Descriptor folder(::openat(base, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder && errno == EACCES) {
        folder.reset(::openat(base, path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return folder;
}

void flushFolder(int folder) {
    const Descriptor readable(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (readable) {
        ::fsync(readable.get());
    }
}

}  // namespace krv::server
