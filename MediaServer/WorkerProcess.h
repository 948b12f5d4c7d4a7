#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "MediaJob.h"
#include "WorkerChannel.h"
#include "WorkerPool.h"

namespace krv::server {

/// Asks a running operation to end. Any thread.
class Cancellation {
public:
    Cancellation();
    /// The descriptor becomes readable and stays so.
    void request();
    [[nodiscard]] bool requested() const noexcept { return requested_; }
    [[nodiscard]] int descriptor() const noexcept { return event_.get(); }

private:
    Descriptor event_;
    std::atomic<bool> requested_{false};
};

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
class WorkerProcess {
public:
    /// workers: where the processes come from; must outlive this.
    explicit WorkerProcess(WorkerPool& workers)
        : workers_(workers) {}

    /// Blocks until the work has ended. onProgress is called on this thread with the fraction that the worker reports.
    [[nodiscard]] Outcome run(const MediaJob& job, const Cancellation& cancellation,
                              const std::function<void(double)>& onProgress) const;

private:
    /// Nothing when the worker has ended, or sends what is no message. begun: whether it has said that it has the job.
    [[nodiscard]] static std::optional<Outcome> follow(WorkerChannel& channel, const Cancellation& cancellation,
                                                       const std::function<void(double)>& onProgress, bool& begun);

    WorkerPool& workers_;
};

}  // namespace krv::server
