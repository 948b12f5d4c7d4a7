#pragma once

#include <optional>
#include <string>

#include <CLI/App.hpp>

#include <KRVQTProcessClient/Media.h>

namespace krvqt {

/// The options of convert that say how, but not what is converted.
struct ConvertSettings {
    struct Track {
        std::optional<std::string> codec;
        std::optional<float> quality;
        std::optional<std::string> settings;
    };
    std::optional<std::string> type;
    bool flatten = false;
    Track video;
    std::optional<float> fps;
    Track audio;
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::optional<std::string> audioTracks;
    std::optional<std::string> subtitleTracks;
    std::optional<std::string> burnIn;
    bool strict = false;

    /// Return the options of a job without files. Throw UsageError if one is malformed.
    [[nodiscard]] krv::ConvertOptions convertOptions() const;
    [[nodiscard]] krv::FlattenOptions flattenOptions() const;

    /// Returns the extension of files that are named after their source, empty for that of the source. Throws
    /// UsageError for an unknown type.
    [[nodiscard]] std::string extension() const;
};

void addSettings(CLI::App& command, ConvertSettings& settings);

}  // namespace krvqt
