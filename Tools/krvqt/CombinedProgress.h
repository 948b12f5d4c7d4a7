#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include <KRVQTProcessClient/Media.h>

#include "ProgressDisplay.h"

namespace krvqt {

/// Shows the progress of several jobs, of about the same length, as that of one. For the main thread.
class CombinedProgress {
public:
    CombinedProgress(std::size_t jobs, bool quiet);

    void show(std::size_t job, const krv::Progress& progress);
    /// Call before the end of a job is reported. The display makes room for the report, and ends with the last job.
    void ended(std::size_t job, bool completed);

private:
    [[nodiscard]] krv::Progress combined() const;

    ProgressDisplay display_;
    std::vector<krv::Progress> jobs_;
    std::vector<bool> ended_;
    bool allCompleted_ = true;
    std::chrono::steady_clock::time_point start_{};  // of the first job that runs
};

/// Returns the progress of several jobs as that of one: the mean fraction, and the state of the one that is furthest.
/// The remaining time is estimated from the elapsed time.
[[nodiscard]] krv::Progress combinedProgress(const std::vector<krv::Progress>& jobs, krv::Seconds elapsed);

}  // namespace krvqt
