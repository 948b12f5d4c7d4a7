#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Media.h>

#include "BatchList.h"

namespace krvqt {

/// The outcome of a job.
struct BatchOutcome {
    std::optional<krv::Failure> failure{};
    /// Entries for the row of a job that is done, such as "droppedTracks" or "info".
    nlohmann::json details = nlohmann::json::object();
};

/// Starts a job. onEnd is called exactly once on the main run loop, never within this call. Destroying the returned handle
/// cancels the job.
[[nodiscard]] std::shared_ptr<void> startBatchJob(const krv::Media& media, const BatchJob& job,
                                                  krv::ProgressCallback onProgress,
                                                  std::function<void(BatchOutcome)> onEnd);

}  // namespace krvqt
