#include "ProgressDisplay.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "Output.h"
#include "TerminalSize.h"

namespace krvqt {
namespace {

constexpr int kSmallestBar = 10;
constexpr int kLargestBar = 50;
constexpr std::chrono::milliseconds kBetweenLooks{500};

std::chrono::seconds wholeSeconds(krv::Seconds seconds) {
    return std::chrono::seconds(std::llround(seconds.count()));
}

}  // namespace

std::string clockText(std::chrono::seconds seconds) {
    const auto total = seconds.count();
    return total >= 3600 ? fmt::format("{}:{:02}:{:02}", total / 3600, total / 60 % 60, total % 60)
                         : fmt::format("{}:{:02}", total / 60, total % 60);
}

std::string progressLine(double fraction, krv::Seconds elapsed, std::optional<krv::Seconds> remaining, int columns) {
    const double shown = std::clamp(fraction, 0.0, 1.0);
    std::string text = fmt::format(" {:3.0f} %  {} elapsed", std::floor(shown * 100),
                                   clockText(std::chrono::floor<std::chrono::seconds>(elapsed)));
    if (remaining) {
        text += fmt::format(", {} left", clockText(wholeSeconds(*remaining)));
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

ProgressDisplay::ProgressDisplay(bool quiet, const krv::Clock& clock)
    : quiet_(quiet)
    , terminal_(canRedraw())
    , clock_(clock)
    , start_(clock.now())
    , timer_(krv::RunLoop::main().scheduleTimer(kBetweenLooks, [this] { tellWhatItWaitsFor(); })) {}

ProgressDisplay::~ProgressDisplay() {
    timer_->invalidate();
}

void ProgressDisplay::show(const krv::Progress& progress) {
    if (quiet_) {
        return;
    }
    if (progress.attempt > attempt_) {
        attempt_ = progress.attempt;
        startOver();
    }
    showWaiting(progress);
    elapsed_ = progress.elapsed;
    switch (progress.state) {
    case krv::Progress::State::WaitingForServer:
        break;
    case krv::Progress::State::Queued:
        drawQueued(progress.position.value_or(0));
        break;
    case krv::Progress::State::Running:
    case krv::Progress::State::Finishing:
        draw(progress.fraction, progress.elapsed, progress.remaining);
        break;
    }
}

void ProgressDisplay::showWaiting(const krv::Progress& progress) {
    wait_.setReason(progress.waitingFor);
    tellWhatItWaitsFor();
}

void ProgressDisplay::tellWhatItWaitsFor() {
    if (quiet_) {
        return;
    }
    if (const auto message = wait_.due(clock_.now() - start_)) {
        erase();
        say("krvqt: {}\n", *message);
    }
}

void ProgressDisplay::drawQueued(std::int64_t before) {
    if (before_ == before) {
        return;
    }
    before_ = before;
    const std::string text = fmt::format("waiting, {} before it", before);
    if (terminal_) {
        drawLine(text.substr(0, static_cast<std::size_t>(std::max(terminalSize().columns - 1, 0))));
    } else {
        say("{}\n", text);
    }
}

void ProgressDisplay::startOver() {
    erase();
    say("krvqt: the media server was lost; another one starts over\n");
    before_.reset();
    lastTenth_ = -1;
}

void ProgressDisplay::draw(double fraction, krv::Seconds elapsed, std::optional<krv::Seconds> remaining) {
    if (terminal_) {
        drawLine(progressLine(fraction, elapsed, remaining, terminalSize().columns));
        return;
    }
    const int tenth = static_cast<int>(std::floor(fraction * 10));
    if (tenth > lastTenth_) {
        lastTenth_ = tenth;
        say("{} %  {}\n", tenth * 10, clockText(std::chrono::floor<std::chrono::seconds>(elapsed)));
    }
}

void ProgressDisplay::drawLine(std::string_view line) {
    sayToTerminal(fmt::format("\r{}\033[K", line));
    lineDrawn_ = true;
}

void ProgressDisplay::erase() {
    if (std::exchange(lineDrawn_, false)) {
        sayToTerminal("\r\033[K");
    }
}

void ProgressDisplay::finish(bool completed) {
    if (quiet_) {
        return;
    }
    if (!completed) {
        erase();
        return;
    }
    draw(1.0, elapsed_, {});
    if (std::exchange(lineDrawn_, false)) {
        sayToTerminal("\n");
    }
}

}  // namespace krvqt
