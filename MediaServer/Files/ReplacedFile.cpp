#include <cstring>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Files/ReplacedFile.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

constexpr mode_t kPermissions = 0777;
constexpr mode_t kPermissionsWithoutGroup = 0707;
constexpr const char* kAccessControlList = "system.posix_acl_access";
constexpr std::string_view kUserAttributes = "user.";
/// The kernel allows no larger list of names, and no larger value.
constexpr std::size_t kLargestAttribute = 65536;

/// Returns the value's size; negative if there is no such attribute or it cannot be read.
ssize_t copyAttribute(const std::string& from, const char* name, int file, std::vector<char>& buffer) {
    const ssize_t size = ::getxattr(from.c_str(), name, buffer.data(), buffer.size());
    if (size >= 0) {
        ::fsetxattr(file, name, buffer.data(), static_cast<std::size_t>(size), 0);
    }
    return size;
}

void copyUserAttributes(const std::string& from, int file, std::vector<char>& buffer) {
    std::vector<char> names(kLargestAttribute);
    const ssize_t size = ::listxattr(from.c_str(), names.data(), names.size());
    for (const char* name = names.data(); size > 0 && name < names.data() + size; name += std::strlen(name) + 1) {
        if (std::string_view(name).starts_with(kUserAttributes)) {
            copyAttribute(from, name, file, buffer);
        }
    }
}

}  // namespace

bool inheritFrom(int folder, const std::string& name, int file) {
    // A path only: the user may be able to write the file, but not to read it.
    const Descriptor old(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!old || ::fstat(old.get(), &status) != 0) {
        return false;
    }
    // Attributes can be read by path only if the descriptor is a path, and this path is always the same file.
    const std::string from = fmt::format("/proc/self/fd/{}", old.get());
    std::vector<char> buffer(kLargestAttribute);
    struct stat created {};
    const bool sameGroup = ::fchown(file, static_cast<uid_t>(-1), status.st_gid) == 0 ||
                           (::fstat(file, &created) == 0 && created.st_gid == status.st_gid);
    copyUserAttributes(from, file, buffer);
    if (copyAttribute(from, kAccessControlList, file, buffer) < 0) {
        ::fremovexattr(file, kAccessControlList);  // the folder's default list, which the old file did not have
    }
    // The old group's permissions must not pass to another group.
    ::fchmod(file, status.st_mode & (sameGroup ? kPermissions : kPermissionsWithoutGroup));
    return true;
}

}  // namespace krv::server
