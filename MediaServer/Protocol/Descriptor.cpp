#include <unistd.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

void Descriptor::reset(int fd) noexcept {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

}  // namespace krv::server
