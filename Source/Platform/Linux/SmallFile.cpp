#include "SmallFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace krv {
namespace {

/// A file that is closed at the end of its scope.
struct OpenFile {
    const int descriptor;
    explicit OpenFile(const std::string& path)
        : descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
    ~OpenFile() {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
};

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit) {
    const OpenFile file(path);
    struct stat status {};
    if (file.descriptor < 0 || ::fstat(file.descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(file.descriptor, buffer, sizeof buffer);
        if (count == 0) {
            return contents;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        contents.append(buffer, static_cast<std::size_t>(count));
        if (contents.size() > limit) {
            return std::nullopt;
        }
    }
}

}  // namespace krv
