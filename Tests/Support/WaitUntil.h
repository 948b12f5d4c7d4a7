#pragma once

#include <chrono>
#include <thread>

namespace krv::test {

/// Polls until a condition holds that has no event to wait for. The pauses leave the processor to what is waited for.
template <typename Condition>
void waitUntil(const Condition& condition) {
    constexpr std::chrono::milliseconds kPause{5};
    while (!condition()) {
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace krv::test
