#include "SmallFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace krv {
namespace {

struct Descriptor {
    const int number;
    explicit Descriptor(int opened)
        : number(opened) {}
    ~Descriptor() {
        if (number >= 0) {
            ::close(number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
};

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.number < 0 || ::fstat(file.number, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string contents;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(file.number, buffer, sizeof buffer);
        if (count == 0) {
            return contents;
        }
        if (count > 0) {
            contents.append(buffer, static_cast<std::size_t>(count));
        }
        if ((count < 0 && errno != EINTR) || contents.size() > limit) {
            return std::nullopt;
        }
    }
}

}  // namespace krv
