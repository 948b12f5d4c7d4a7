#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/AtomicOutput.h>
#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The files of one media operation, opened here because a worker can open none.
class OperationFiles {
public:
    /// Opens the files. The request must have been checked. Null with the error when one of them cannot be used.
    [[nodiscard]] static std::unique_ptr<OperationFiles> open(const KRVOperationBase::Ref& request,
                                                              std::shared_ptr<const Error>& error);

    [[nodiscard]] const KRVOperationBase& request() const noexcept { return *request_; }
    /// What the worker gets: the sources in order and, where there is one, the file it writes.
    [[nodiscard]] std::vector<int> descriptors() const;

    /// Writes what the worker has made to the disk, which may take long: see flushGradually(). Null, or the error.
    [[nodiscard]] std::shared_ptr<const Error> flush(const std::function<bool()>& onLife);

    /// Puts under their names what the worker has made, all of it or nothing, and completes its record. Null, or the
    /// error.
    [[nodiscard]] std::shared_ptr<const Error> commit(KRVOperationBase& record);

private:
    KRVOperationBase::Ref request_;
    std::vector<Descriptor> sources_;
    // One of them, or none: what is only asked about makes no file.
    std::unique_ptr<AtomicOutput> file_;
    std::unique_ptr<ThumbnailFolder> folder_;
};

}  // namespace krv::server
