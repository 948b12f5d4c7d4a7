#pragma once

#include <functional>
#include <string>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// A note in the state folder of a hidden file or folder that exists while an output is put in place. If the server is
/// killed in this time, the next start removes what the note names.
///
/// The note is locked as long as this object exists, so that the start of a second server leaves alone what the first
/// one still uses. The kernel releases the lock of a killed server. The destructor removes the note.
class UnfinishedNote {
public:
    /// No note.
    UnfinishedNote() = default;
    /// Writes a note. If that is not possible there is none: an output is worth more than the clean-up after it.
    explicit UnfinishedNote(const std::string& hiddenPath);
    ~UnfinishedNote() { remove(); }
    UnfinishedNote(UnfinishedNote&& other) noexcept;
    UnfinishedNote& operator=(UnfinishedNote&& other) noexcept;

    void remove();
    /// Unlocks the note and leaves it to the next start.
    void leave();

    /// Calls the function with the path in each note that no living server uses, and removes the note if it returns
    /// true. Only paths whose last part is a hidden name are passed on. Notes that are not regular files are ignored.
    static void sweep(const std::function<bool(const std::string& hiddenPath)>& clean);

    /// Returns a new name for a hidden file or folder.
    [[nodiscard]] static std::string hiddenName();

private:
    Descriptor file_;
    std::string path_;
};

}  // namespace krv::server
