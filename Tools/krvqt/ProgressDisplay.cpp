#include "ProgressDisplay.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

#include "Interruption.h"

namespace krvqt {
namespace {

constexpr int kDefaultColumns = 80;
constexpr int kSmallestBar = 10;
constexpr int kLargestBar = 50;
/// An estimate of the remaining time jumps about below this fraction and before this time.
constexpr double kSmallestFractionForEstimate = 0.01;
constexpr std::chrono::seconds kShortestTimeForEstimate{1};

int terminalColumns() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kDefaultColumns;
}

}  // namespace

std::string clockText(std::chrono::seconds seconds) {
    const auto total = seconds.count();
    return total >= 3600 ? fmt::format("{}:{:02}:{:02}", total / 3600, total / 60 % 60, total % 60)
                         : fmt::format("{}:{:02}", total / 60, total % 60);
}

std::string progressLine(double fraction, std::chrono::seconds elapsed, int columns) {
    const double shown = std::clamp(fraction, 0.0, 1.0);
    std::string text = fmt::format(" {:3.0f} %  {} elapsed", std::floor(shown * 100), clockText(elapsed));
    if (shown >= kSmallestFractionForEstimate && elapsed >= kShortestTimeForEstimate) {
        const auto left = static_cast<double>(elapsed.count()) * (1.0 - shown) / shown;
        text += fmt::format(", {} left", clockText(std::chrono::seconds(std::llround(left))));
    }
    const int room = columns - static_cast<int>(text.size()) - 3;
    if (room < kSmallestBar) {
        return text.substr(0, static_cast<std::size_t>(std::max(columns - 1, 0)));
    }
    const int width = std::min(room, kLargestBar);
    const int filled = static_cast<int>(std::floor(shown * width));
    return fmt::format("[{}{}]{}", std::string(static_cast<std::size_t>(filled), '#'),
                       std::string(static_cast<std::size_t>(width - filled), '.'), text);
}

ProgressDisplay::ProgressDisplay(bool quiet, Queue queue)
    : quiet_(quiet)
    , queue_(std::move(queue))
    , terminal_(::isatty(STDERR_FILENO) == 1) {}

bool ProgressDisplay::operation(const krv::KRVOperationBase::Ref& operation, float progress) {
    operation_ = operation;
    if (quiet_) {
        return !Interruption::requested();
    }
    const auto before = mayWait_ && queue_ ? queue_(*operation) : std::nullopt;
    if (before) {
        drawWaiting(*before);
    } else {
        mayWait_ = false;
        if (before_) {
            restartClock();
        }
        draw(static_cast<double>(progress));
    }
    return !Interruption::requested();
}

void ProgressDisplay::restartClock() {
    start_ = std::chrono::steady_clock::now();
    before_.reset();
}

void ProgressDisplay::drawWaiting(std::int64_t before) {
    if (before == before_) {
        return;
    }
    before_ = before;
    const std::string text = fmt::format("waiting, {} before it", before);
    if (terminal_) {
        fmt::print(stderr, "\r{}\033[K", text.substr(0, static_cast<std::size_t>(std::max(terminalColumns() - 1, 0))));
        lineDrawn_ = true;
    } else {
        fmt::print(stderr, "{}\n", text);
    }
}

void ProgressDisplay::startOver() {
    if (quiet_) {
        return;
    }
    fmt::print(stderr, "{}krvqt: the media server was lost; another one starts over\n",
               std::exchange(lineDrawn_, false) ? "\r\033[K" : "");
    restartClock();
    mayWait_ = true;
    lastTenth_ = -1;
}

bool ProgressDisplay::operationWasCancelled() const {
    return operation_ && operation_->cancelled();
}

void ProgressDisplay::draw(double fraction) {
    const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
    if (terminal_) {
        fmt::print(stderr, "\r{}\033[K", progressLine(fraction, elapsed, terminalColumns()));
        lineDrawn_ = true;
        return;
    }
    const int tenth = static_cast<int>(std::floor(fraction * 10));
    if (tenth > lastTenth_) {
        lastTenth_ = tenth;
        fmt::print(stderr, "{} %  {}\n", tenth * 10, clockText(elapsed));
    }
}

void ProgressDisplay::finish(bool completed) {
    if (quiet_) {
        return;
    }
    if (completed) {
        draw(1.0);
    }
    if (lineDrawn_) {
        fmt::print(stderr, "{}", completed ? "\n" : "\r\033[K");
    }
}

}  // namespace krvqt
