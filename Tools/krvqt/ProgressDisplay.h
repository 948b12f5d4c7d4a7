#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
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
/// On a terminal it redraws one line; elsewhere it prints a line at every tenth. While the operation waits in the
/// server's queue, it prints how many are before it, and its clock starts with the work.
class ProgressDisplay final : public krv::OperationProgress {
public:
    /// Returns how many operations are before this one in the server's queue. Empty if it does not wait.
    using Queue = std::function<std::optional<std::int64_t>(const krv::KRVOperationBase& operation)>;

    explicit ProgressDisplay(bool quiet, Queue queue = {});

    /// Returns false after a signal, which cancels the operation.
    bool operation(const krv::KRVOperationBase::Ref& operation, float progress) override;

    /// Returns whether the operation was cancelled, by krvqt or by another client. The call itself does not report it.
    [[nodiscard]] bool operationWasCancelled() const;

    /// Prints that the server was lost and the work starts over, and restarts the clock.
    void startOver();

    /// Completes the line if the operation completed, otherwise erases it.
    void finish(bool completed);

private:
    void draw(double fraction);
    void drawWaiting(std::int64_t before);
    void restartClock();

    krv::KRVOperationBase::Ref operation_;
    const bool quiet_;
    const Queue queue_;
    bool mayWait_ = true;                   // until the work has started
    std::optional<std::int64_t> before_{};  // as printed last
    const bool terminal_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    int lastTenth_ = -1;
    bool lineDrawn_ = false;
};

}  // namespace krvqt
