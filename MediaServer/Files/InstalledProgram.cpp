#include <cerrno>
#include <system_error>

#include <sys/stat.h>

#include <MediaServer/Files/InstalledProgram.h>

namespace krv::server {
namespace {

constexpr const char* kRunningProgram = "/proc/self/exe";

}  // namespace

InstalledProgram::InstalledProgram() {
    std::error_code failure;
    path_ = std::filesystem::read_symlink(kRunningProgram, failure);
    struct stat status {};
    if (::stat(kRunningProgram, &status) == 0) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
}

bool InstalledProgram::isPresent() const {
    struct stat status {};
    if (path_.empty() || inode_ == 0) {
        return true;
    }
    if (::stat(path_.c_str(), &status) != 0) {
        return errno != ENOENT && errno != ENOTDIR && errno != ENOTCONN;
    }
    return status.st_dev == device_ && status.st_ino == inode_;
}

}  // namespace krv::server
