#pragma once

#include <functional>
#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Operations/DescriptionCache.h>
#include <MediaServer/Workers/Cancellation.h>
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {

/// Carries out media operations.
struct MediaWorkflow {
    const JobRunner& runner;
    /// Opens, flushes and closes the files.
    BlockingCalls& blockingCalls;
    /// Shared with calls that block.
    std::shared_ptr<DescriptionCache> descriptions;

    /// Carries out one media operation from its request to its outputs: opens the files, has a worker do the work,
    /// flushes the output and puts it under its name. Blocks until then. A cancellation or failure before the last step
    /// leaves the old destination whole. No worker is needed to describe a file that has not changed since the last
    /// time; it must still be readable.
    ///
    /// If the files cannot be opened within 20 s, the operation fails. A cancellation does not wait for them. onDelay
    /// is called on this thread, perhaps more than once, if they are not open or closed promptly, and if the worker
    /// reports nothing for 10 s: other operations should not wait for this one.
    ///
    /// onProgress is called on this thread with the worker's fraction in [0, 1], and repeatedly with 1 while the output
    /// is flushed and put in place. Thread-safe.
    [[nodiscard]] Outcome perform(const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                                  const std::function<void(double)>& onProgress,
                                  const std::function<void()>& onDelay) const;
};

}  // namespace krv::server
