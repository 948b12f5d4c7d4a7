#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/Operations/OperationKeys.h>

#include "DroppedTracks.h"
#include "ExitStatus.h"
#include "Interruption.h"
#include "Options.h"
#include "Paths.h"
#include "ProgressDisplay.h"

namespace krvqt {

/// An operation that writes files, and how it is reported.
struct FileOperation {
    std::string operation;  ///< name of the command
    std::vector<std::string> sources;
    std::string destination;
};

/// Reports the end of an operation on standard output and standard error, and measures how long it took.
class FileReport {
public:
    /// Borrows both.
    FileReport(const FileOperation& operation, const CommonOptions& common);
    /// Says how long the work has taken so far. By default it is measured since this object was created.
    void setElapsed(krv::Seconds elapsed) {
        start_ =
            std::chrono::steady_clock::now() - std::chrono::duration_cast<std::chrono::steady_clock::duration>(elapsed);
    }

    /// Adds further entries to the JSON object of a success. May be null.
    using Describe = std::function<void(nlohmann::json&)>;
    /// Prints a success on standard output. If null, the destination is printed.
    using Print = std::function<void()>;
    ExitStatus done(const Describe& describe, const Print& print) const;
    ExitStatus failed(const krv::Failure& failure) const;

private:
    [[nodiscard]] nlohmann::json result(std::string_view status) const;
    [[nodiscard]] double elapsed() const;

    const FileOperation& operation_;
    const CommonOptions& common_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Returns the control of a job that ends after a signal.
[[nodiscard]] krv::JobControl untilInterrupted();
[[nodiscard]] krv::Media media(const CommonOptions& common);

/// Runs a job with its progress on standard error and returns its result. start takes the Media, the callback for
/// progress and the control, and returns the job. Call on the main thread only.
template <typename Start>
[[nodiscard]] auto runWithProgress(const Start& start, const CommonOptions& common) {
    ProgressDisplay display(common.quiet);
    auto result =
        start(
            media(common), [&display](const krv::Progress& progress) { display.show(progress); }, untilInterrupted())
            .wait();
    display.finish(result.has_value());
    return result;
}

/// Reports the end of a job that writes a movie, and what was dropped.
template <typename Written>
[[nodiscard]] ExitStatus reportMovie(const FileOperation& operation, const FileReport& report,
                                     const krv::Result<Written>& result) {
    if (!result) {
        return report.failed(result.error());
    }
    return report.done(
        [&](nlohmann::json& json) {
            json[std::string(krv::kResultDroppedTracks)] = droppedJSON(result->droppedTracks, operation.sources);
        },
        [&] {
            printDropped(result->droppedTracks, operation.sources);
            printPath(operation.destination);
        });
}

/// Runs a job that writes a movie, and reports its end. Call on the main thread only.
template <typename Start>
[[nodiscard]] ExitStatus writeMovie(const FileOperation& operation, const Start& start, const CommonOptions& common) {
    const FileReport report(operation, common);
    return reportMovie(operation, report, runWithProgress(start, common));
}

}  // namespace krvqt
