#pragma once

#include <chrono>
#include <functional>

namespace krvqt {

/// SIGINT, SIGTERM and SIGHUP, received by a thread instead of a handler.
class Interruption {
public:
    /// Blocks the signals in the calling thread and its descendants. Call before any other thread exists. After the
    /// first signal the process has this long to exit by itself. Then, or at a second signal, it exits with status 130.
    static void watch(std::chrono::seconds patience);

    /// Sets the action for the first signal, replacing an earlier one. It runs on its own thread, at once if a signal
    /// has already arrived.
    static void onRequest(std::function<void()> action);

    /// Returns whether a signal has arrived. Thread-safe.
    [[nodiscard]] static bool requested() noexcept;
};

}  // namespace krvqt
