#include <cerrno>

#include <unistd.h>

#include <MediaServer/Media/Container/ReadAt.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {

ReadAt readAtDescriptor(int descriptor) {
    return [descriptor](std::int64_t offset, std::span<std::byte> bytes) {
        while (!bytes.empty()) {
            const ssize_t got = ::pread(descriptor, bytes.data(), bytes.size(), offset);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                throw Failure({.cause = FailureCause::UnreadableSource, .errorNumber = errno});
            }
            if (got == 0) {
                return false;
            }
            bytes = bytes.subspan(static_cast<std::size_t>(got));
            offset += got;
        }
        return true;
    };
}

}  // namespace krv::media
