// The part of an application that is tested: it converts a movie and says what a person should read.
#pragma once

#include <filesystem>
#include <string>

#include <KRVQTProcessClient/Media.h>

struct Conversion {
    enum class Outcome { Done, Stalled, Failed, TryAgainLater };
    Outcome outcome = Outcome::Done;
    /// For a person; empty if the movie was converted.
    std::string sentence;
};

/// Converts a movie to H.264, and gives up if nothing advances for longer than the patience. Call it on the main thread.
Conversion convert(const std::filesystem::path& source, const std::filesystem::path& destination,
                   krv::ProgressCallback onProgress, krv::Seconds patience);
