#pragma once

#include <chrono>
#include <functional>

namespace krvqt {

/// Ctrl-C and SIGTERM, taken by a thread of its own instead of a handler.
class Interruption {
public:
    /// Blocks the signals in the calling thread and in those it starts later, so it must be called before any other
    /// thread exists. When a signal comes, the process is given this long to end by itself; then, or at a second
    /// signal, it leaves with status 130.
    static void watch(std::chrono::seconds patience);

    /// What is done when a signal comes, on a thread of its own; at once when one has come already. Replaces what
    /// was there before.
    static void onRequest(std::function<void()> action);

    /// Whether a signal has come. Any thread.
    [[nodiscard]] static bool requested() noexcept;
};

}  // namespace krvqt
