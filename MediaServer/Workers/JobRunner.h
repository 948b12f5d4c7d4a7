#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Workers/Cancellation.h>
#include <MediaServer/Workers/WorkerPool.h>
#include <MediaServer/Workers/WorkerReport.h>

namespace krv::server {

/// Runs one job in a worker process. A request and its open files go in; progress and finally a record come out.
/// Whatever happens to that process affects this operation only.
class JobRunner {
public:
    /// workers: supplies the processes; must outlive this object. stallLimit: how long a worker may report nothing, or
    /// not read its request, before it is killed; 0: no limit. Time in which the machine sleeps does not count.
    /// silence: see run().
    explicit JobRunner(WorkerPool& workers, std::chrono::milliseconds stallLimit = {},
                       std::chrono::milliseconds silence = std::chrono::seconds(10))
        : workers_(workers)
        , stallLimit_(stallLimit)
        , silence_(silence) {}

    /// Blocks until the work has ended. onProgress is called on this thread with the fraction that the worker reports.
    /// onSilence is called once on this thread if the worker does nothing for a while, because its source is on a
    /// drive that does not respond, for instance; it may be empty. Thread-safe.
    /// files: the sources in order and then, where the request has a destination, the file to write; borrowed.
    [[nodiscard]] Outcome run(const KRVOperationBase& request, const std::vector<int>& files,
                              const Cancellation& cancellation, const std::function<void(double)>& onProgress,
                              const std::function<void()>& onSilence = {}) const;

    /// A worker and the request that it carries out.
    struct BusyWorker {
        pid_t pid;
        /// Identifies the request that was given to run(); it may not exist any more.
        const KRVOperationBase* request;
    };
    /// Returns the workers that have a job at this moment. Thread-safe.
    [[nodiscard]] std::vector<BusyWorker> busy() const;

private:
    /// Keeps a worker in busy().
    class Busy;
    /// What following a worker came to.
    enum class Followed { Reported, Cancelled, Stalled, Exited };
    class Watch;
    /// Waits until the worker reports its end in `report`, is no longer wanted, reports nothing for too long, or
    /// has exited or sent an invalid message.
    /// begun: set when the worker has confirmed that it has the job.
    [[nodiscard]] static Followed follow(WorkerChannel& channel, Watch& watch,
                                         const std::function<void(double)>& onProgress, bool& begun,
                                         WorkerChannel::Message& report);

    WorkerPool& workers_;
    const std::chrono::milliseconds stallLimit_;
    const std::chrono::milliseconds silence_;
    mutable Mutex mutex_;
    mutable std::vector<BusyWorker> busy_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::server
