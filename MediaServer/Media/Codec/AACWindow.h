#pragma once

#include <optional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The window with which an AAC packet was transformed. The halves of neighbouring windows overlap, and their aliasing
/// cancels out only if their forms fit together.
struct AACWindow {
    int sequence;  ///< one long window, start of short ones, eight short ones or their end, as the standard numbers them
    int shape;

    bool operator==(const AACWindow& other) const noexcept = default;
};

/// Reads the window from the beginning of a packet of AAC-LC without ADTS header. Returns nullopt if that does not tell
/// it: if the packet does not begin with a channel or with a pair whose channels share their window.
[[nodiscard]] std::optional<AACWindow> aacWindow(const AVPacket& packet) noexcept;

}  // namespace krv::media
