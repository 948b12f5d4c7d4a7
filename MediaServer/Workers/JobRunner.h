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

/// The boundary behind which media code lives: one record and its open files go in, progress comes out, and at the end
/// one record. The work is done by a child process of its own; whatever happens to that process happens to this
/// operation only.
class JobRunner {
public:
    /// workers: where the processes come from; must outlive this.
    explicit JobRunner(WorkerPool& workers)
        : workers_(workers) {}

    /// Blocks until the work has ended. onProgress is called on this thread with the fraction that the worker reports.
    /// files: the sources in order and then, where the request has a destination, the file to write; borrowed.
    [[nodiscard]] Outcome run(const KRVOperationBase& request, const std::vector<int>& files,
                              const Cancellation& cancellation, const std::function<void(double)>& onProgress) const;

private:
    /// Nothing when the worker has ended, or sends what is no message. begun: whether it has said that it has the job.
    [[nodiscard]] static std::optional<Outcome> follow(WorkerChannel& channel, const Cancellation& cancellation,
                                                       const std::function<void(double)>& onProgress, bool& begun);

    WorkerPool& workers_;
};

}  // namespace krv::server
