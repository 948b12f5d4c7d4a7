#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace krv {

/// Seconds with fractions: times within a movie, and durations.
using Seconds = std::chrono::duration<double>;

/// How far a job has got.
struct Progress {
    enum class State : std::uint8_t {
        WaitingForServer,  ///< no server responds yet; see waitingFor
        Queued,            ///< other jobs are before it; see position
        Running,
        Finishing,  ///< the last half per cent: the output is flushed and named, and the result is fetched
    };
    State state = State::WaitingForServer;
    /// 0 to 1. Never decreases within an attempt.
    double fraction = 0;
    /// Since the work started; not while the job was queued.
    Seconds elapsed{0};
    /// An estimate; absent until there is one.
    std::optional<Seconds> remaining{};
    /// How many jobs run or wait before this one; absent if it is not queued.
    std::optional<std::int64_t> position{};
    /// Why no server responds yet, such as "one is running, but it does not respond"; else empty.
    std::string waitingFor{};
    /// Counts from 1. A higher number means that the server was lost and the work starts over, with fraction 0.
    int attempt = 1;
};

}  // namespace krv
