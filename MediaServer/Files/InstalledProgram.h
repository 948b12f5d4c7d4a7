#pragma once

#include <filesystem>

#include <sys/types.h>

namespace krv::server {

/// The program file that this process runs, as it is installed on the disk.
class InstalledProgram {
public:
    InstalledProgram();

    /// Returns the path from which the program was started. Empty if /proc cannot be read.
    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    /// Returns whether the path still leads to the running program. False if the file has been removed, replaced by an
    /// upgrade or unmounted. Other failures, such as a lack of permission, prove nothing and count as present.
    [[nodiscard]] bool isPresent() const;

private:
    std::filesystem::path path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace krv::server
