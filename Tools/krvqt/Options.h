#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace krvqt {

/// What every command understands.
struct CommonOptions {
    bool json = false;
    bool quiet = false;
    /// How long to wait for a server.
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
    [[nodiscard]] bool withSettings() const { return video.any() || fps || audio.any(); }
};

}  // namespace krvqt
