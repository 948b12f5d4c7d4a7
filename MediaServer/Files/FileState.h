#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

#include <sys/stat.h>

namespace krv::server {

/// Which file a descriptor refers to, and what shows that its contents have changed. Two states are equal if the file
/// is the same and has not changed between them, as far as its file system tells.
class FileState {
public:
    using Time = std::chrono::system_clock::time_point;

    /// The state of a file at the present time.
    explicit FileState(const struct stat& status);
    /// The same for an open file. Empty if the file system does not tell. Blocks while its drive does not respond.
    [[nodiscard]] static std::optional<FileState> of(int file);

    /// Returns whether the file has changed so recently that another change might not show: file systems count time in
    /// ticks, the coarsest of two seconds. True of a file that claims to have been changed in the future.
    [[nodiscard]] bool isFresh() const noexcept { return std::max(modified_, changed_) > seen_ - kCoarsestTick; }

    friend bool operator==(const FileState& a, const FileState& b) noexcept {
        return a.drive_ == b.drive_ && a.number_ == b.number_ && a.size_ == b.size_ && a.modified_ == b.modified_ &&
               a.changed_ == b.changed_;
    }

private:
    static constexpr std::chrono::seconds kCoarsestTick{2};

    dev_t drive_;
    ino_t number_;
    off_t size_;
    Time modified_;
    Time changed_;
    Time seen_;
};

}  // namespace krv::server
