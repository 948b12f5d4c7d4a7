#pragma once

#include <memory>

namespace krv {

class KRVOperationBase;

/// The application's observer of one operation's progress.
class OperationProgress {
public:
    virtual ~OperationProgress() = default;

    /// Called on the thread that waits for the operation, about twice a second, until it ends; never for the poll on
    /// which the end is seen, so 1.0 need not be reported. The operation is the waiting call's request record;
    /// progress is a fraction from 0.0 to 1.0. Returning false asks for cancellation. What it throws ends the wait
    /// and reaches the caller unchanged.
    [[nodiscard]] virtual bool operation(const std::shared_ptr<KRVOperationBase>& operation, float progress) = 0;
};

}  // namespace krv
