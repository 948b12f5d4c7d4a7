#pragma once

#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include <MediaServer/Files/Destination.h>
#include <MediaServer/Files/UnfinishedNote.h>
#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// An output file that appears under its name when it is complete, or not at all.
///
/// The output is written to an unnamed file in the destination's folder. A destination that does not exist is linked in
/// one step. An existing one is replaced by linking to a hidden name beside it and renaming that over it. The hidden
/// name is recorded in the state folder first, so that the next start of the server removes what a killed server left.
/// Where the file system has no unnamed files, the hidden name exists from the beginning, readable for its user only.
///
/// A file that is replaced leaves the new one its permission bits, access control list and extended attributes, and its
/// group if the user may set it (see ReplacedFile.h). The owner is the user. Other hard links to the old file keep the
/// old contents. A file that has become unsuitable since the start, for instance read-only, is not replaced.
///
/// If the object is destroyed without keep(), it leaves nothing behind and the old destination is whole.
class AtomicOutput {
public:
    /// Opens the unnamed file. The path must be absolute. Returns null and sets failure if the destination cannot be
    /// written; see Destination.
    [[nodiscard]] static std::unique_ptr<AtomicOutput> open(const std::string& destination,
                                                            std::optional<Failure>& failure);
    /// The same for a place that has been found.
    [[nodiscard]] static std::unique_ptr<AtomicOutput> open(Destination destination, std::optional<Failure>& failure);
    ~AtomicOutput();
    AtomicOutput(const AtomicOutput&) = delete;
    AtomicOutput& operator=(const AtomicOutput&) = delete;

    /// The unnamed file, open for reading and writing; borrowed.
    [[nodiscard]] int descriptor() const noexcept { return file_.get(); }

    /// Flushes the file and puts it under its name. Keeps the old file: until keep() is called, the destructor restores
    /// the old state. Where the file system cannot exchange two files, a file that was replaced stays replaced. Returns
    /// the failure, if any.
    [[nodiscard]] std::optional<Failure> place();
    /// Removes the old file and flushes the folder.
    void keep();

private:
    explicit AtomicOutput(Destination destination);
    [[nodiscard]] bool openUnnamed();
    [[nodiscard]] bool openHidden();
    enum class Placed { No, New, Exchanged };
    [[nodiscard]] std::optional<Failure> replace();
    void takeBack();
    [[nodiscard]] bool linkTo(const std::string& name) const;
    void chooseHiddenName();
    void forgetHiddenName();

    const Destination destination_;
    Descriptor file_;
    /// The permission bits with which the file was created.
    mode_t createdMode_ = 0;
    /// The permission bits of a new file in its place: 0666 less the umask, or what the folder's default access control
    /// list says.
    mode_t mode_ = 0;
    Placed placed_ = Placed::No;
    /// The hidden name in the destination's folder; empty if there is none on the disk.
    std::string hidden_;
    UnfinishedNote note_;
};

}  // namespace krv::server
