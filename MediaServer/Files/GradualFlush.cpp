#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include <MediaServer/Files/GradualFlush.h>

namespace krv::server {
namespace {

/// A slow disk writes this in less than a second.
constexpr off_t kPart = off_t{8} << 20;

}  // namespace

int flushGradually(int file, const std::function<bool()>& onProgress) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return errno;
    }
    constexpr unsigned kWriteAndWait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    for (off_t place = 0; place < status.st_size; place += kPart) {
        if (::sync_file_range(file, place, std::min(kPart, status.st_size - place), kWriteAndWait) != 0) {
            const bool notInParts = errno == ESPIPE || errno == EINVAL || errno == ENOSYS;
            return notInParts ? 0 : errno;
        }
        if (!onProgress()) {
            break;
        }
    }
    return 0;
}

}  // namespace krv::server
