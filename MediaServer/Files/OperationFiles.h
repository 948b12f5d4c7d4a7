#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/AtomicOutput.h>
#include <MediaServer/Files/FileState.h>
#include <MediaServer/Files/Placing.h>
#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The open files of one media operation. The server opens them because a worker can open no path.
class OperationFiles {
public:
    /// Is called before a file is accessed, with its number and each drive on the way to it: those of the sources, and
    /// then the next number for the destination. Returns whether the drive may be accessed.
    using OnAccess = std::function<bool(std::size_t file, dev_t drive)>;

    /// Opens the sources and the output of a valid request. Returns null and sets failure if one of them cannot be
    /// used. A drive that must not be accessed counts as one that does not respond.
    [[nodiscard]] static std::unique_ptr<OperationFiles> open(const KRVOperationBase& request, const OnAccess& onAccess,
                                                              std::optional<Failure>& failure);

    /// Returns what the worker receives: the sources in order and then the file it writes, if there is one. The
    /// descriptors are borrowed.
    [[nodiscard]] std::vector<int> descriptors() const;

    /// Returns what the first source was like when it was opened.
    [[nodiscard]] const FileState& sourceState() const { return sources_.front().state; }

    [[nodiscard]] bool haveOutput() const noexcept { return file_ || folder_; }
    /// Returns the drive of the output.
    [[nodiscard]] dev_t outputDrive() const noexcept { return outputDrive_; }
    /// Closes the output, and removes it unless it has been put in place.
    void closeOutput();
    /// Closes the sources. Calls onDrive with the drive of each one before.
    void closeSources(const std::function<void(dev_t drive)>& onDrive);

    /// Writes the output to the disk. This may take long; see flushGradually() for onProgress. Returns the failure, if
    /// any.
    [[nodiscard]] std::optional<Failure> flush(const std::function<bool()>& onProgress);

    /// Puts all outputs under their names, or none, and completes the worker's record. Returns whether the outputs are
    /// in place. If not, failure is set unless `placing` ended the work.
    [[nodiscard]] bool commit(KRVOperationBase& record, const Placing& placing, std::optional<Failure>& failure);

    /// Removes what an earlier server that was killed left unfinished, and puts back what it had replaced.
    static void sweep();

private:
    struct Source {
        Descriptor file;
        dev_t drive;
        FileState state;
    };

    [[nodiscard]] std::optional<Failure> openSources(const std::vector<std::string>& paths,
                                                     const std::string& destination, const OnAccess& onAccess);

    std::vector<Source> sources_;
    std::string destination_;
    dev_t outputDrive_ = 0;
    /// At most one of the two exists: operations that only answer a question write no file.
    std::unique_ptr<AtomicOutput> file_;
    std::unique_ptr<ThumbnailFolder> folder_;
};

}  // namespace krv::server
