#pragma once

#include <string>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Finds the demuxer for a file by its content. The path's extension is used only if the content is inconclusive.
/// Throws Failure with UnknownFormat if there is no demuxer, with UnsupportedFormat if it cannot read such a file, and
/// with RefersToOtherFiles if it would read other files.
[[nodiscard]] const AVInputFormat& probeFormat(AVIOContext& io, const std::string& path);

}  // namespace krv::media
