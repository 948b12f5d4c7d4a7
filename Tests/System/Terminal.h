#pragma once

#include <functional>
#include <string>
#include <vector>

#include "TemporaryFolder.h"

namespace krv::test {

/// A terminal with an interactive shell, in a tmux of its own. The destructor ends both.
class Terminal {
public:
    Terminal(int columns, int rows);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Types a command line and presses Enter.
    void run(const std::string& command);
    /// Clears the screen. The shell must be at its prompt.
    void clear();
    /// Presses a key, such as "C-c".
    void press(const std::string& key);
    void resize(int columns, int rows);

    /// Returns the lines of the screen, without spaces at their ends. With colours: as escape sequences.
    [[nodiscard]] std::vector<std::string> lines(bool withColours = false) const;
    /// Waits until the screen shows something, and returns the lines as they are then.
    std::vector<std::string> waitUntilScreen(const std::function<bool(const std::vector<std::string>&)>& shows) const;
    /// Waits until a line contains the text.
    std::vector<std::string> waitFor(const std::string& text) const;

private:
    std::string tmux(std::vector<std::string> arguments) const;

    TemporaryFolder folder_;
};

}  // namespace krv::test
