// Preloaded into the server: a disk on which other programs write so much that flushing the file system never ends.
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

/// Creates the file that $KRV_BUSY_DISK names, and does not return.
extern "C" __attribute__((visibility("default"))) int syncfs(int /*file*/) noexcept {
    if (const char* const marker = std::getenv("KRV_BUSY_DISK")) {
        ::close(::open(marker, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    for (;;) {
        ::pause();
    }
}
