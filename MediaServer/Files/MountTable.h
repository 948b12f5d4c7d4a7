#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace krv::server {

/// Where file systems are mounted. It finds the drives that a path leads to without access to any of them, because one
/// that does not respond blocks whoever looks up a name in it.
class MountTable {
public:
    /// Stands for a drive that is not known.
    static constexpr dev_t kUnknownDrive = 0;

    /// Parses a text in the form of /proc/self/mountinfo. Lines that are malformed are ignored.
    explicit MountTable(std::string_view mountInfo);
    /// Returns the mounts that this process sees now; none if /proc cannot be read.
    [[nodiscard]] static MountTable current();

    /// Returns the device number of the drive on which this path is, which must be absolute, without links and "..".
    [[nodiscard]] dev_t driveOf(std::string_view path) const;

    /// Follows an absolute path and its symbolic links to the end, or until something is missing. Calls enter with each
    /// drive on the way before anything is looked up there, and at last with the drive that the path is on. Returns
    /// false as soon as enter does. May block if a drive does not respond.
    [[nodiscard]] bool follow(const std::string& path, const std::function<bool(dev_t drive)>& enter) const;

private:
    /// By mount point. Of several mounts on one place, the last is what a path leads to.
    std::map<std::string, dev_t, std::less<>> drives_;
};

}  // namespace krv::server
