#pragma once

#include <optional>
#include <string>

#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// The place of an output: its folder, which stays open, and its name there.
///
/// Whoever renames the folder or puts a link in its place while the output is made changes nothing: everything happens
/// relative to the open folder.
class Destination {
public:
    /// Finds the place. path must be absolute. Symbolic links are followed as open(2) with O_CREAT follows them, also
    /// those that point to a file that does not exist yet. Returns nothing and sets failure if the folder cannot be
    /// opened or refusal() refuses the destination.
    [[nodiscard]] static std::optional<Destination> open(const std::string& path, std::optional<Failure>& failure);
    /// A place in a folder that is open already. The name is not checked. path: what messages call it.
    Destination(Descriptor folder, std::string name, std::string path);

    /// The folder; borrowed. It may be open as a path only (O_PATH).
    [[nodiscard]] int folder() const noexcept { return folder_.get(); }
    [[nodiscard]] const std::string& name() const noexcept { return name_; }
    /// The path as it was given.
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    /// Returns the folder's path at this moment.
    [[nodiscard]] std::string folderPath() const;

    /// The same as refusalToReplace() for this place.
    [[nodiscard]] std::optional<Failure> refusal() const;

    /// Returns the failure to write to this place with an error number.
    [[nodiscard]] Failure unwritable(int errorNumber) const;

private:
    Descriptor folder_;
    std::string name_;
    std::string path_;
};

/// Returns why the file of this name must not be replaced. Nothing if it may be, and if there is none.
///
/// Only regular files are replaced. Replacing needs write access to the folder only, but users do not expect a file to
/// be replaced that they could not write to. A file of another user in a sticky folder cannot be replaced at all. path:
/// what messages call it.
[[nodiscard]] std::optional<Failure> refusalToReplace(int folder, const std::string& name, const std::string& path);

/// Opens a folder for reading, so that it can be flushed, or as a path only (O_PATH) if it cannot be listed. base: the
/// open folder to which a relative path refers, or AT_FDCWD. Returns none and sets errno on failure.
[[nodiscard]] Descriptor openFolder(int base, const std::string& path);

/// Flushes the names in an open folder to the disk, as far as the user may read the folder and the file system can.
void flushFolder(int folder);

}  // namespace krv::server
