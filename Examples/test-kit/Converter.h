// The part of an application that is tested: it converts a movie, and gives up if nothing advances.
#pragma once

#include <chrono>
#include <functional>
#include <string>

struct Conversion {
    enum class Outcome { Done, Stalled, Failed, Unreachable };
    Outcome outcome = Outcome::Done;
    /// For a person; empty if the movie was converted.
    std::string sentence;
};

/// Converts a movie to H.264. Blocks, so call it on a worker thread while the main loop runs. onProgress is called with
/// numbers from 0 to 1. patience: how long the same number is tolerated.
Conversion convert(const std::string& source, const std::string& destination,
                   const std::function<void(float)>& onProgress, std::chrono::milliseconds patience);
