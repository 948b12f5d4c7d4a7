#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "WaitNotice.h"

namespace krvqt {

/// Formats minutes and seconds, with hours if there are any: "0:07", "12:40", "1:02:03".
[[nodiscard]] std::string clockText(std::chrono::seconds seconds);

/// Returns one line of progress, narrower than `columns`: bar, per cent, elapsed time and, if it is known, remaining
/// time.
[[nodiscard]] std::string progressLine(double fraction, krv::Seconds elapsed, std::optional<krv::Seconds> remaining,
                                       int columns);

/// Shows the progress of a job on standard error.
///
/// On a terminal it redraws one line; elsewhere it prints a line at every tenth. While the job waits in a queue, it
/// prints how many are before it. While it waits for a server, it prints what it waits for, but only after a few
/// seconds. For the main thread.
class ProgressDisplay {
public:
    /// The clock measures how long it has waited. It must outlive the object.
    explicit ProgressDisplay(bool quiet, const krv::Clock& clock = krv::Clock::steady());
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    void show(const krv::Progress& progress);
    /// Shows only what the job waits for. For a job that is short.
    void showWaiting(const krv::Progress& progress);

    /// Erases the line, so that something else can be printed. The next progress draws it again.
    void erase();
    /// Completes the line if the job completed, otherwise erases it.
    void finish(bool completed);

private:
    void draw(double fraction, krv::Seconds elapsed, std::optional<krv::Seconds> remaining);
    void drawQueued(std::int64_t before);
    void tellWhatItWaitsFor();
    void startOver();
    void drawLine(std::string_view line);

    const bool quiet_;
    const bool terminal_;
    const krv::Clock& clock_;
    const krv::Clock::TimePoint start_;
    const std::shared_ptr<krv::RunLoop::Timer> timer_;
    std::optional<std::int64_t> before_{};  // as printed last
    WaitNotice wait_;
    krv::Seconds elapsed_{0};
    int attempt_ = 1;
    int lastTenth_ = -1;
    bool lineDrawn_ = false;
};

}  // namespace krvqt
