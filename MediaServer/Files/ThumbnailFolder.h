#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/AtomicOutput.h>

namespace krv::server {

/// The files "thumbnail-0001.jpg"… of a folder, which appear together or not at all.
///
/// The worker writes all pictures into one unnamed file and says where each of them lies; they become files of their
/// own here. The folder is made if it is missing, and goes again if nothing came of it.
class ThumbnailFolder {
public:
    /// Null with the error when the folder cannot be written to. The path must be absolute.
    [[nodiscard]] static std::unique_ptr<ThumbnailFolder> open(const std::string& folder,
                                                               std::optional<Failure>& failure);
    ~ThumbnailFolder();
    ThumbnailFolder(const ThumbnailFolder&) = delete;
    ThumbnailFolder& operator=(const ThumbnailFolder&) = delete;

    /// Where the pictures are written to. Open for reading and writing.
    [[nodiscard]] int descriptor() const noexcept { return pictures_->descriptor(); }

    /// record: the worker's. Its `result` holds under "thumbnails" an array of dictionaries with "time", "offset" and
    /// "length"; afterwards of dictionaries with "path" and "time". Null, or the error, and then nothing has appeared.
    [[nodiscard]] std::optional<Failure> commit(KRVOperationBase& record);

private:
    explicit ThumbnailFolder(std::string folder);
    [[nodiscard]] std::unique_ptr<AtomicOutput> copyPicture(const std::string& path, const Dictionary& picture,
                                                            std::optional<Failure>& failure) const;

    const std::string asGiven_;
    bool made_ = false;
    std::unique_ptr<AtomicOutput> pictures_;
};

}  // namespace krv::server
