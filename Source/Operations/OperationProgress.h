#pragma once

#include <memory>

namespace krv {

class KRVOperationBase;

/// Observes the progress of one operation. Applications implement it.
class OperationProgress {
public:
    virtual ~OperationProgress() = default;

    /// Called about twice a second, on the thread that waits for the operation, until the operation ends. Not called
    /// for the poll that finds it ended, so 1.0 may never be reported. operation is the waiting call's request record,
    /// progress a fraction from 0.0 to 1.0. To cancel the operation, return false.
    ///
    /// An exception ends the wait and propagates to the caller unchanged. It does not cancel the operation: the server
    /// completes it. If the server is lost and the call is repeated, the work starts over: progress falls, and operation
    /// is another record. Not called while the call waits for a server, so an observer cannot cancel then.
    [[nodiscard]] virtual bool operation(const std::shared_ptr<KRVOperationBase>& operation, float progress) = 0;
};

}  // namespace krv
