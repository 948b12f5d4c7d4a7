#pragma once

#include <functional>
#include <thread>
#include <vector>

#include <MediaServer/Operations/OperationLedger.h>

namespace krv::server {

/// The threads that carry out the ledger's media operations, each one operation after another.
///
/// There are some for long operations, and one more for short ones, so that the description of a movie never waits
/// behind conversions.
class OperationExecutors {
public:
    /// Carries out one operation on an executor thread. Must not throw.
    using Work = std::function<Outcome(const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                                       const std::function<void(double)>& onProgress)>;

    /// Starts the threads: longThreads, at least 1, for long operations. ledger must outlive this object.
    OperationExecutors(OperationLedger& ledger, unsigned longThreads, Work work);
    /// Stops the ledger and waits for the threads, whose operations are cancelled.
    ~OperationExecutors();
    OperationExecutors(const OperationExecutors&) = delete;
    OperationExecutors& operator=(const OperationExecutors&) = delete;

private:
    void run(OperationLedger::Duration duration);

    OperationLedger& ledger_;
    const Work work_;
    std::vector<std::thread> threads_;
};

}  // namespace krv::server
