#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/AtomicOutput.h>
#include <MediaServer/Files/FileGroup.h>
#include <MediaServer/Files/Placing.h>

namespace krv::server {

/// The files "thumbnail-0001.jpg"... of a folder, which appear together or not at all.
///
/// The worker writes all pictures into one unnamed file and reports where each one is. commit() makes a file of each.
/// The folder is created if it is missing, and removed again if no thumbnails are made.
class ThumbnailFolder {
public:
    /// Opens or creates the folder. The path must be absolute. Returns null and sets failure if the folder cannot be
    /// written to.
    [[nodiscard]] static std::unique_ptr<ThumbnailFolder> open(const std::string& folder,
                                                               std::optional<Failure>& failure);
    ~ThumbnailFolder();
    ThumbnailFolder(const ThumbnailFolder&) = delete;
    ThumbnailFolder& operator=(const ThumbnailFolder&) = delete;

    /// The unnamed file for all pictures, open for reading and writing; borrowed.
    [[nodiscard]] int descriptor() const noexcept { return pictures_->descriptor(); }

    /// Makes the files. record: the worker's; its `result` has under "thumbnails" an array of dictionaries with "time",
    /// "offset" and "length", which this function replaces by dictionaries with "path" and "time".
    ///
    /// See Placing. Returns true when all files are in place. Otherwise none has appeared, and failure is set unless
    /// `placing` ended the work.
    [[nodiscard]] bool commit(KRVOperationBase& record, const Placing& placing, std::optional<Failure>& failure);

private:
    explicit ThumbnailFolder(std::string folder);
    [[nodiscard]] std::optional<Failure> copyPicture(FileGroup& files, const std::string& name,
                                                     const Dictionary& picture) const;

    const std::string asGiven_;
    bool made_ = false;
    Descriptor folder_;
    std::unique_ptr<AtomicOutput> pictures_;
};

}  // namespace krv::server
