#include "TerminalSize.h"

#include <cstdlib>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

namespace krvqt {

TerminalSize terminalSize() {
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {.columns = size.ws_col, .rows = size.ws_row};
}

bool canRedraw() {
    const char* const type = std::getenv("TERM");
    return ::isatty(STDERR_FILENO) == 1 && type && *type != '\0' && std::string_view(type) != "dumb";
}

}  // namespace krvqt
