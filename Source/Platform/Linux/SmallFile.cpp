#include "SmallFile.h"

#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace krv {
namespace {

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit) {
    const int opened = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    const std::unique_ptr<std::FILE, Close> file(opened < 0 ? nullptr : ::fdopen(opened, "r"));
    if (!file && opened >= 0) {
        ::close(opened);
    }
    struct stat status {};
    if (!file || ::fstat(opened, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string contents;
    char buffer[4096];
    while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, file.get())) {
        contents.append(buffer, count);
        if (contents.size() > limit) {
            return std::nullopt;
        }
    }
    return std::ferror(file.get()) == 0 ? std::optional(std::move(contents)) : std::nullopt;
}

}  // namespace krv
