#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include <sys/types.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "MediaJob.h"
#include "WorkerChannel.h"

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
/// one record. The work is done by a child process; whatever happens to that process happens to this operation only.
class WorkerProcess {
public:
    /// executable: the worker program.
    explicit WorkerProcess(std::string executable)
        : executable_(std::move(executable)) {}

    /// Blocks until the work has ended. onProgress is called on this thread with the fraction that the worker reports.
    /// The calling thread must live as long as the process: a worker ends with the thread that started it.
    [[nodiscard]] Outcome run(const MediaJob& job, const Cancellation& cancellation,
                              const std::function<void(double)>& onProgress) const;

private:
    [[nodiscard]] pid_t spawn(int channelEnd) const;

    const std::string executable_;
};

}  // namespace krv::server
