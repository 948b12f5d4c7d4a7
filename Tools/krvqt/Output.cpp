#include "Output.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "VisibleText.h"

namespace krvqt {
namespace {

std::atomic<int> firstFailure{0};

/// Returns 0 or the error number.
int writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {  // another program may have made the terminal non-blocking
            pollfd writable{.fd = descriptor, .events = POLLOUT, .revents = 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int writeTo(int descriptor, std::string_view text) {
    return ::isatty(descriptor) == 1 ? writeAll(descriptor, visible(text)) : writeAll(descriptor, text);
}

}  // namespace

void prepareOutput() {
    std::signal(SIGPIPE, SIG_IGN);
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) == -1) {
            // The lowest free descriptor is this one. Writing to it fails, because it is open for reading only.
            [[maybe_unused]] const int taken = ::open("/dev/null", O_RDONLY);
        }
    }
}

void say(std::string_view message) {
    writeTo(STDERR_FILENO, message);
}

void sayToTerminal(std::string_view sequences) {
    writeAll(STDERR_FILENO, sequences);
}

void printOut(std::string_view results) {
    if (const int failure = writeTo(STDOUT_FILENO, results); failure != 0) {
        int none = 0;
        firstFailure.compare_exchange_strong(none, failure);
    }
}

int outputFailure() {
    return firstFailure;
}

}  // namespace krvqt
