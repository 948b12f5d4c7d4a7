#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/Source.h>

namespace krv::media {

/// Returns whether a video stream is a cover picture.
[[nodiscard]] inline bool isCover(const AVStream& stream) noexcept {
    return (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

/// Returns whether a stream is a cover picture in a format that every container with covers can hold.
[[nodiscard]] bool isCopyableCover(const AVStream& stream) noexcept;

/// Returns whether the transparency of a video stream is stored beside its packets, as Matroska does with VP8 and VP9.
[[nodiscard]] bool hasAlphaBesidePackets(const AVStream& stream) noexcept;

/// Returns whether a video stream is transparent.
[[nodiscard]] bool hasAlpha(const AVStream& stream) noexcept;

/// Returns whether subtitles of this codec are text, as opposed to bitmaps.
[[nodiscard]] bool isTextSubtitle(AVCodecID codec) noexcept;

/// Returns the indices of the source's usable streams of a kind. Skips covers and streams without a known codec, size
/// or sample rate.
[[nodiscard]] std::vector<std::size_t> usableStreams(const Source& source, AVMediaType kind);

/// Returns the default stream among these, else the first one. Returns nothing if there are none.
[[nodiscard]] std::optional<std::size_t> defaultOrFirst(const Source& source, const std::vector<std::size_t>& indices);

}  // namespace krv::media
