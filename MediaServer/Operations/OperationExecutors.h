#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Operations/OperationLedger.h>

namespace krv::server {

/// The threads that carry out the ledger's media operations, each one operation after another.
///
/// There are some for long operations, and one more for short ones, so that the description of a movie never waits
/// behind conversions. A thread whose operation waits for something other than its worker, such as a drive that does
/// not respond, is replaced by another one. It carries its operation out and ends.
class OperationExecutors {
public:
    /// Carries out one operation on an executor thread. Must not throw. Calls onDelay on that thread if other
    /// operations should not wait for this one.
    using Work =
        std::function<Outcome(const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                              const std::function<void(double)>& onProgress, const std::function<void()>& onDelay)>;

    /// Starts the threads: longThreads, at least 1, for long operations. ledger must outlive this object. Throws
    /// std::system_error if no thread can be started.
    OperationExecutors(OperationLedger& ledger, unsigned longThreads, Work work);
    /// Stops the ledger and waits for the threads, whose operations are cancelled.
    ~OperationExecutors();
    OperationExecutors(const OperationExecutors&) = delete;
    OperationExecutors& operator=(const OperationExecutors&) = delete;

private:
    /// At most this many threads are added in place of others that wait.
    static constexpr std::size_t kMostReplaced = 16;

    void start(OperationLedger::Duration duration);
    /// Stops the ledger and waits for the threads.
    void end();
    [[nodiscard]] bool isFull();
    void run(OperationLedger::Duration duration);

    OperationLedger& ledger_;
    const Work work_;
    const std::size_t usual_;
    Mutex mutex_;
    std::condition_variable_any ended_;
    /// How many threads have not ended yet.
    std::size_t threads_ KRV_GUARDED_BY(mutex_) = 0;
};

}  // namespace krv::server
