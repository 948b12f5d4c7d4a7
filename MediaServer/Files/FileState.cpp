#include <MediaServer/Files/FileState.h>

namespace krv::server {
namespace {

FileState::Time timeOf(const timespec& time) {
    const auto sinceEpoch = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    return FileState::Time(std::chrono::duration_cast<FileState::Time::duration>(sinceEpoch));
}

}  // namespace

FileState::FileState(const struct stat& status)
    : drive_(status.st_dev)
    , number_(status.st_ino)
    , size_(status.st_size)
    , modified_(timeOf(status.st_mtim))
    , changed_(timeOf(status.st_ctim))
    , seen_(std::chrono::system_clock::now()) {}

std::optional<FileState> FileState::of(int file) {
    struct stat status {};
    return ::fstat(file, &status) == 0 ? std::optional<FileState>(status) : std::nullopt;
}

}  // namespace krv::server
