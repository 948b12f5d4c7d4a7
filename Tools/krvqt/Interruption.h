#pragma once

#include <chrono>
#include <stop_token>

namespace krvqt {

/// SIGINT, SIGTERM and SIGHUP, received by a thread instead of a handler.
class Interruption {
public:
    /// Blocks the signals in the calling thread and its descendants. Call before any other thread exists. After the
    /// first signal the process has this long to exit by itself. Then, or at a second signal, it exits with status 130.
    static void watch(std::chrono::seconds patience);

    /// Returns a token whose stop is requested when a signal arrives. Thread-safe.
    [[nodiscard]] static std::stop_token token();
};

}  // namespace krvqt
