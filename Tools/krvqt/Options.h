#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace krvqt {

/// Options of every command.
struct CommonOptions {
    bool json = false;
    bool quiet = false;
    /// How long to wait for a media server.
    std::chrono::duration<double> wait{20};
};

struct TrackOptions {
    std::optional<std::string> codec;
    std::optional<float> quality;
    std::optional<std::string> settings;
    [[nodiscard]] bool any() const { return codec || quality || settings; }
};

struct ConvertOptions {
    std::string source;
    std::string destination;
    std::optional<std::string> type;
    bool flatten = false;
    bool force = false;
    TrackOptions video;
    std::optional<float> fps;
    TrackOptions audio;
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::optional<std::string> audioTracks;
    std::optional<std::string> subtitleTracks;
    std::optional<std::string> burnIn;
    bool strict = false;
    [[nodiscard]] bool withVideoSettings() const { return video.any() || fps; }
    [[nodiscard]] bool withSettings() const { return withVideoSettings() || audio.any(); }
};

struct ThumbnailsOptions {
    std::string movie;
    std::string folder;
    std::optional<std::string> size;
    std::optional<int> count;
    bool force = false;
};

struct InfoOptions {
    std::vector<std::string> movies;
    std::optional<std::string> poster;
    bool force = false;
};

struct MuxOptions {
    std::string source;
    std::string destination;
    bool force = false;
};

struct MergeOptions {
    /// The last one is the destination.
    std::vector<std::string> files;
    bool shortest = false;
    std::optional<std::string> size;
    std::optional<double> fps;
    bool force = false;
};

struct TimesOptions {
    std::string movie;
    std::optional<std::int32_t> track;
};

}  // namespace krvqt
