#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

/// Minutes and seconds, with hours when there are any: "0:07", "12:40", "1:02:03".
[[nodiscard]] std::string clockText(std::chrono::seconds seconds);

/// One line of progress, at most `columns` wide: bar, per cent, elapsed and, once it can be told, remaining time.
[[nodiscard]] std::string progressLine(double fraction, std::chrono::seconds elapsed, int columns);

/// Shows an operation's progress on standard error and passes on the wish to stop.
///
/// On a terminal it is one line that is written over; otherwise a line at every tenth. When the server is lost and the
/// work begins anew, it says so once and counts the time from there.
class ProgressDisplay final : public krv::OperationProgress {
public:
    explicit ProgressDisplay(bool quiet);

    /// False once a signal has asked for an end.
    bool operation(const krv::KRVOperationBase::Ref& operation, float progress) override;

    /// Whether the operation ended by being cancelled, by us or by somebody else: the call itself does not tell.
    [[nodiscard]] bool operationWasCancelled() const;

    /// Takes the line away, or completes it when the operation was completed.
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
