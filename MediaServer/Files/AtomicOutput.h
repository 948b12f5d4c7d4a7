#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <MediaServer/Protocol/Descriptor.h>
#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// A file that appears under its name when it is complete, or not at all.
///
/// It is written to an unnamed file in the destination's folder. A destination that does not exist is linked in one
/// step. An existing one is replaced by linking to a hidden name beside it and renaming that over it; the hidden name
/// is noted in the state folder first, so that the next start of the server sweeps away what an abrupt end in between
/// has left. Where the file system has no unnamed files the hidden name stands from the beginning.
///
/// Dropped without commit() it leaves nothing behind, and the old destination whole.
class AtomicOutput {
public:
    /// Opens the unnamed file. The path must be absolute. Returns null and sets failure if the destination cannot be
    /// written.
    [[nodiscard]] static std::unique_ptr<AtomicOutput> open(const std::string& destination,
                                                            std::optional<Failure>& failure);
    ~AtomicOutput();
    AtomicOutput(const AtomicOutput&) = delete;
    AtomicOutput& operator=(const AtomicOutput&) = delete;

    /// Open for reading and writing.
    [[nodiscard]] int descriptor() const noexcept { return file_.get(); }

    /// Flushes the file and puts it under its name. Returns the failure, if any.
    [[nodiscard]] std::optional<Failure> commit();

    /// The same in two steps, for several files that belong together. place() puts the file under its name and keeps
    /// what stood there; until keep() has been called the old state comes back when this goes. (Where the file system
    /// cannot exchange two files, a file that was replaced stays replaced.)
    [[nodiscard]] std::optional<Failure> place();
    void keep();

    /// Removes the hidden names that an earlier server has noted and left.
    static void sweep();

private:
    explicit AtomicOutput(std::string destination);
    [[nodiscard]] bool openUnnamed();
    [[nodiscard]] bool openHidden();
    enum class Old { Dropped, Kept };
    enum class Placed { No, New, Exchanged };
    [[nodiscard]] std::optional<Failure> put(Old old);
    [[nodiscard]] bool replace(Old old);
    void takeBack();
    [[nodiscard]] bool linkTo(const std::filesystem::path& name) const;
    [[nodiscard]] bool noteHiddenName();
    void forgetHiddenName();
    [[nodiscard]] Failure failed(int errorNumber) const;

    const std::string asGiven_;
    /// Where links lead to.
    std::filesystem::path destination_;
    Descriptor file_;
    Placed placed_ = Placed::No;
    /// The hidden name, when there is one on the disk.
    std::filesystem::path hidden_;
    std::filesystem::path note_;
};

}  // namespace krv::server
