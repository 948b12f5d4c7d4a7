#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Media.h>
#include <KRVQTProcessClient/Platform/Clock.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

#include "WaitNotice.h"

namespace krvqt {

/// Returns the beginning of a name that fits into this many columns of a terminal. Control characters are replaced.
[[nodiscard]] std::string fittingName(std::string_view name, int columns);

/// Shows the progress of a batch on standard error: on a terminal one bar for each running job and a line for the whole,
/// which are redrawn; elsewhere nothing but messages. For the main thread.
class BatchDisplay {
public:
    /// all: how many jobs there are to do.
    BatchDisplay(bool quiet, std::size_t all);
    /// Erases the bars.
    ~BatchDisplay();
    BatchDisplay(const BatchDisplay&) = delete;
    BatchDisplay& operator=(const BatchDisplay&) = delete;

    /// Adds a bar for the job on this line of the list.
    void start(std::size_t line, const std::string& name);
    void show(std::size_t line, const krv::Progress& progress);
    /// Removes its bar.
    void end(std::size_t line, bool done);
    /// Prints a line of its own above the bars.
    void say(const std::string& message);
    /// Erases the bars until the next drawing, so that something else can be written to the terminal.
    void makeRoom() { erase(); }
    [[nodiscard]] krv::Seconds elapsed() const;

private:
    struct Bar {
        std::string name;
        double fraction = 0;
        int attempt = 1;
    };
    void redraw();
    void erase();
    /// Returns the control sequences that erase what is drawn.
    [[nodiscard]] std::string erasure() const;
    void tellWhatItWaitsFor();
    [[nodiscard]] std::vector<std::string> linesToDraw(int columns, int rows) const;

    const bool quiet_;
    const bool terminal_;
    const std::size_t all_;
    const krv::Clock::TimePoint start_;
    const std::shared_ptr<krv::RunLoop::Timer> timer_;
    std::map<std::size_t, Bar> bars_;
    std::size_t done_ = 0;
    std::size_t failed_ = 0;
    WaitNotice wait_;
    /// The lines that are on the screen.
    std::vector<std::string> drawn_;
};

}  // namespace krvqt
