#pragma once

#include <cstdint>
#include <optional>

#include <MediaServer/Media/Container/ReadAt.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns the size that a file has according to its own headers, in bytes, if that is more than it has: it was cut
/// off. Reads the outermost elements of the mov family, of Matroska, WebM, AVI and WAV. Empty for a whole file, for
/// other formats and for headers that do not say.
[[nodiscard]] std::optional<std::int64_t> declaredSize(const ReadAt& readAt, std::int64_t fileSize);

/// Returns the time of the first video or audio packet that the index of a movie places beyond the end of its file, in
/// microseconds of the file's timestamps. Empty if there is none.
[[nodiscard]] std::optional<std::int64_t> firstMissingTime(const AVFormatContext& format, std::int64_t fileSize);

}  // namespace krv::media
