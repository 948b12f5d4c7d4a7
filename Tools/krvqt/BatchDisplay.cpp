#include "BatchDisplay.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <numeric>

#include <fmt/format.h>

#include "Output.h"
#include "ProgressDisplay.h"
#include "TerminalSize.h"

namespace krvqt {
namespace {

constexpr int kSmallestBar = 10;
constexpr int kLargestBar = 30;
/// The share of a line that a bar may take.
constexpr int kBarShare = 3;
constexpr std::chrono::milliseconds kBetweenDrawings{100};

/// Set when this process goes on after it was stopped: the shell has written to the terminal in the meantime.
std::atomic<bool> continued{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void watchContinuation() {
    struct sigaction action {};
    action.sa_handler = [](int) { continued = true; };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGCONT, &action, nullptr);
}

/// Returns how long the character is that begins with this byte.
std::size_t lengthOfCharacter(unsigned char first) {
    return first < 0x80U ? 1U : first < 0xE0U ? 2U : first < 0xF0U ? 3U : 4U;
}

/// Returns how many columns a character takes at most. Those from here on may be wide.
int columnsOf(unsigned char first) {
    constexpr unsigned char kWide = 0xE1;
    return first >= kWide ? 2 : 1;
}

bool isControl(std::string_view character) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(character[at]); };
    return byte(0) < 0x20U || byte(0) == 0x7FU || (character.size() == 2 && byte(0) == 0xC2U && byte(1) < 0xA0U);
}

int widthOf(std::string_view text) {
    return std::accumulate(text.begin(), text.end(), 0, [](int sum, char each) {
        const auto byte = static_cast<unsigned char>(each);
        return sum + ((byte & 0xC0U) == 0x80U ? 0 : columnsOf(byte));
    });
}

std::string barLine(double fraction, const std::string& name, int columns) {
    const int width = std::clamp(columns / kBarShare, kSmallestBar, kLargestBar);
    const double shown = std::clamp(fraction, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(std::floor(shown * width));
    const std::string bar =
        fmt::format("[{}{}] {:3.0f} %  ", std::string(filled, '#'),
                    std::string(static_cast<std::size_t>(width) - filled, '.'), std::floor(shown * 100));
    return bar + fittingName(name, columns - 1 - static_cast<int>(bar.size()));
}

}  // namespace

std::string fittingName(std::string_view name, int columns) {
    constexpr std::string_view kEllipsis = "...";
    std::string text;
    std::string shortened;
    while (!name.empty()) {
        const std::string_view character = name.substr(0, lengthOfCharacter(static_cast<unsigned char>(name.front())));
        name.remove_prefix(character.size());
        if (widthOf(text) + static_cast<int>(kEllipsis.size()) <= columns) {
            shortened = text;
        }
        text += isControl(character) ? "?" : character;
        if (widthOf(text) > columns) {
            return columns < static_cast<int>(kEllipsis.size()) ? std::string() : shortened.append(kEllipsis);
        }
    }
    return text;
}

BatchDisplay::BatchDisplay(bool quiet, std::size_t all)
    : quiet_(quiet)
    , terminal_(canRedraw())
    , all_(all)
    , start_(krv::Clock::steady().now())
    , timer_(krv::RunLoop::main().scheduleTimer(kBetweenDrawings, [this] {
        tellWhatItWaitsFor();
        redraw();
    })) {
    watchContinuation();
}

BatchDisplay::~BatchDisplay() {
    timer_->invalidate();
    erase();
}

void BatchDisplay::start(std::size_t line, const std::string& name) {
    bars_[line] = {.name = name};
}

void BatchDisplay::show(std::size_t line, const krv::Progress& progress) {
    Bar& bar = bars_[line];
    bar.fraction = progress.fraction;
    wait_.setReason(progress.waitingFor);
    if (progress.attempt > bar.attempt) {
        bar.attempt = progress.attempt;
        say(fmt::format("line {}: the media server was lost; another one starts over", line));
    }
}

void BatchDisplay::end(std::size_t line, bool done) {
    bars_.erase(line);
    ++(done ? done_ : failed_);
}

void BatchDisplay::say(const std::string& message) {
    erase();
    krvqt::say("krvqt: {}\n", message);
}

krv::Seconds BatchDisplay::elapsed() const {
    return krv::Clock::steady().now() - start_;
}

void BatchDisplay::tellWhatItWaitsFor() {
    if (quiet_) {
        return;
    }
    if (const auto message = wait_.due(elapsed())) {
        say(*message);
    }
}

std::vector<std::string> BatchDisplay::linesToDraw(int columns, int rows) const {
    std::vector<std::string> lines;
    const auto room = static_cast<std::size_t>(std::max(rows - 2, 1));
    for (const auto& [line, bar] : bars_) {
        if (lines.size() == room) {
            break;
        }
        lines.push_back(barLine(bar.fraction, bar.name, columns));
    }
    const double running = std::accumulate(bars_.begin(), bars_.end(), 0.0,
                                           [](double sum, const auto& each) { return sum + each.second.fraction; });
    const double fraction = (static_cast<double>(done_ + failed_) + running) / static_cast<double>(all_);
    const std::string failed = failed_ > 0 ? fmt::format(", {} failed", failed_) : "";
    lines.push_back(barLine(fraction,
                            fmt::format("{} of {} jobs done{}, {} elapsed", done_, all_, failed,
                                        clockText(std::chrono::floor<std::chrono::seconds>(elapsed()))),
                            columns));
    return lines;
}

void BatchDisplay::redraw() {
    if (quiet_ || !terminal_) {
        return;
    }
    if (continued.exchange(false)) {
        drawn_.clear();
        sayToTerminal("\n");
    }
    const TerminalSize size = terminalSize();
    const std::vector<std::string> lines = linesToDraw(size.columns, size.rows);
    if (lines == drawn_) {
        return;
    }
    // In one write, so that the bars do not flicker.
    sayToTerminal(erasure() + fmt::format("{}", fmt::join(lines, "\n")));
    drawn_ = lines;
}

void BatchDisplay::erase() {
    sayToTerminal(erasure());
    drawn_.clear();
}

std::string BatchDisplay::erasure() const {
    if (drawn_.empty()) {
        return {};
    }
    // Lines that have become longer than the terminal is wide take several rows.
    const int columns = terminalSize().columns;
    const int rows = std::accumulate(drawn_.begin(), drawn_.end(), 0, [columns](int sum, const std::string& line) {
        return sum + std::max(1, (widthOf(line) + columns - 1) / columns);
    });
    return rows > 1 ? fmt::format("\r\033[{}A\033[J", rows - 1) : "\r\033[J";
}

}  // namespace krvqt
