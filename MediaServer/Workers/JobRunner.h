#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Workers/Cancellation.h>
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {

/// How an operation ended.
struct Outcome {
    enum class Kind { Completed, Failed, Cancelled };
    Kind kind = Kind::Failed;
    /// For Failed.
    std::shared_ptr<const Error> error;
    /// For Completed: the worker's record.
    KRVOperationBase::Ref record;
};

/// Runs one job in a worker process. A request and its open files go in; progress and finally a record come out. Whatever
/// happens to that process affects this operation only.
class JobRunner {
public:
    /// workers: supplies the processes; must outlive this object.
    explicit JobRunner(WorkerPool& workers)
        : workers_(workers) {}

    /// Blocks until the work has ended. onProgress is called on this thread with the fraction that the worker reports.
    /// Thread-safe.
    /// files: the sources in order and then, where the request has a destination, the file to write; borrowed.
    [[nodiscard]] Outcome run(const KRVOperationBase& request, const std::vector<int>& files,
                              const Cancellation& cancellation, const std::function<void(double)>& onProgress) const;

private:
    /// Returns how the job ended, or nothing if the worker has exited or sent an invalid message. begun: set when the
    /// worker has confirmed that it has the job.
    [[nodiscard]] static std::optional<Outcome> follow(WorkerChannel& channel, const Cancellation& cancellation,
                                                       const std::function<void(double)>& onProgress, bool& begun);

    WorkerPool& workers_;
};

}  // namespace krv::server
