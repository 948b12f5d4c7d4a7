#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

/// Formats minutes and seconds, with hours if there are any: "0:07", "12:40", "1:02:03".
[[nodiscard]] std::string clockText(std::chrono::seconds seconds);

/// Returns one line of progress, narrower than `columns`: bar, per cent, elapsed time and, once it can be estimated,
/// remaining time.
[[nodiscard]] std::string progressLine(double fraction, std::chrono::seconds elapsed, int columns);

/// Shows an operation's progress on standard error and cancels the operation after a signal.
///
/// On a terminal it redraws one line; elsewhere it prints a line at every tenth. When the server is lost and the work
/// starts over, it prints so once and restarts its clock.
class ProgressDisplay final : public krv::OperationProgress {
public:
    explicit ProgressDisplay(bool quiet);

    /// Returns false after a signal, which cancels the operation.
    bool operation(const krv::KRVOperationBase::Ref& operation, float progress) override;

    /// Returns whether the operation was cancelled, by krvqt or by another client. The call itself does not report it.
    [[nodiscard]] bool operationWasCancelled() const;

    /// Completes the line if the operation completed, otherwise erases it.
    void finish(bool completed);

private:
    void draw(double fraction);

    krv::KRVOperationBase::Ref operation_;
    const bool quiet_;
    const bool terminal_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    double last_ = 0;
    int lastTenth_ = -1;
    bool lineDrawn_ = false;
};

}  // namespace krvqt
