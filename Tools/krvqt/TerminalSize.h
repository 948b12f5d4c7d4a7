#pragma once

namespace krvqt {

struct TerminalSize {
    int columns = 80;
    int rows = 24;
};

/// Returns the size of the terminal that standard error is; the usual one if it is none.
[[nodiscard]] TerminalSize terminalSize();

/// Returns whether standard error is a terminal on which lines can be redrawn.
[[nodiscard]] bool canRedraw();

}  // namespace krvqt
