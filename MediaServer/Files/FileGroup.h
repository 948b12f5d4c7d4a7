#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <sys/types.h>

#include <MediaServer/Files/UnfinishedNote.h>
#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// Files of one folder that appear together or not at all, however many they are: no descriptor is kept per file.
///
/// The files are written into a hidden folder beside their places, which has two folders. "new" keeps one name of every
/// file until the end, so that anybody can tell which of the files in place are ours. "old" keeps the files that ours
/// have replaced. Each file is put in place in one step: a new one by a link, an existing one by exchanging it for a
/// link. Renaming "new" to "done" is what makes the outputs permanent. If the server is killed before that, the next
/// start takes all of them back; if it is killed after that, the next start only removes the hidden folder.
///
/// Where the file system has no links or cannot exchange files, files are renamed instead. A replaced file is then
/// missing for a moment, and new files that a killed server had put in place stay.
class FileGroup {
public:
    /// Creates the hidden folder. folder: borrowed until this object is destroyed. path: what messages call the folder.
    /// onProgress is called for each file that is taken back or whose hidden name is removed. Returns null and sets
    /// failure on failure.
    [[nodiscard]] static std::unique_ptr<FileGroup>
    open(int folder, const std::string& path, std::function<void()> onProgress, std::optional<Failure>& failure);
    /// Takes back everything unless keep() was called, and removes the hidden folder. If an old file cannot be put
    /// back, it stays in the hidden folder and the next start tries again.
    ~FileGroup();
    FileGroup(const FileGroup&) = delete;
    FileGroup& operator=(const FileGroup&) = delete;

    /// Creates a file for writing. It inherits from the file it is to replace. Returns none and sets failure if it
    /// cannot be created or could not replace the file that is there.
    [[nodiscard]] Descriptor create(const std::string& name, std::optional<Failure>& failure);
    /// Writes one file's contents to the disk. flush() is needed as well. Returns the failure, if any.
    [[nodiscard]] std::optional<Failure> flushContents(const std::string& name);
    /// Flushes all files to the disk; see flushFileSystem(). Returns the failure, if any.
    [[nodiscard]] std::optional<Failure> flush(const std::function<bool()>& onProgress);
    /// Flushes the names of the files in place to the disk, as far as the file system can.
    void flushNames(const std::function<bool()>& onProgress) const;
    /// Puts a file under its name. Returns the failure, if any.
    [[nodiscard]] std::optional<Failure> place(const std::string& name);
    /// Makes the files permanent. Returns the failure, if any.
    [[nodiscard]] std::optional<Failure> keep();

    /// Takes back the files of a server that was killed while it put them in place, and removes its hidden folder.
    /// Returns whether nothing is left.
    static bool clean(const std::string& hiddenPath);

private:
    /// Which file it is, whatever its name: device and number.
    using Identity = std::pair<dev_t, ino_t>;

    FileGroup(int folder, std::string path, std::function<void()> onProgress);
    [[nodiscard]] std::optional<Failure> make();
    [[nodiscard]] std::string pathOf(const std::string& name) const;
    [[nodiscard]] Failure unwritable(const std::string& name, int errorNumber) const;
    [[nodiscard]] bool placeNew(const std::string& name) const;
    [[nodiscard]] bool exchange(const std::string& name) const;
    [[nodiscard]] static std::optional<Identity> identityOf(int folder, const std::string& name);
    /// Returns whether the old state is restored.
    static bool takeBack(int folder, int made, int old, const std::string& name, std::optional<Identity> ours);

    const int folder_;
    const std::string path_;
    const std::function<void()> onProgress_;
    std::string hiddenName_;
    UnfinishedNote note_;
    Descriptor hidden_;
    Descriptor new_;
    Descriptor old_;
    /// The files in "new", by name.
    std::map<std::string, Identity> files_;
    bool kept_ = false;
};

}  // namespace krv::server
