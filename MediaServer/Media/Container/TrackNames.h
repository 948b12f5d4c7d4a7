#pragma once

#include <string>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns what a track is: "video", "audio", "subtitle", "data", "attachment" or "cover". Pure.
[[nodiscard]] std::string kindOf(const AVStream& stream);

/// Returns FFmpeg's name of a track's codec, or a four-character code if FFmpeg does not know it. Empty if the file says
/// neither. Pure.
[[nodiscard]] std::string codecOf(const AVStream& stream);

/// Returns the common name of a codec: "H.264", "MPEG-2", "PCM". It is FFmpeg's name if there is no other. Pure.
[[nodiscard]] std::string displayName(AVCodecID codec);

/// Returns the language tag of a track. Empty if the file has none, or something else there. Pure.
[[nodiscard]] std::string languageOf(const AVStream& stream);

}  // namespace krv::media
