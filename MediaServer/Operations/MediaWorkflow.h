#pragma once

#include <functional>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Workers/Cancellation.h>
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {

/// Carries out one media operation from its request to its outputs: opens the files, has a worker do the work, flushes
/// the output and puts it under its name. Blocks until then. A cancellation or failure before the last step leaves the
/// old destination whole.
///
/// onProgress is called on this thread with the worker's fraction in [0, 1], and repeatedly with 1 while the output is
/// flushed. Thread-safe.
[[nodiscard]] Outcome performMediaOperation(const JobRunner& runner, const KRVOperationBase::Ref& request,
                                            const Cancellation& cancellation,
                                            const std::function<void(double)>& onProgress);

}  // namespace krv::server
