#pragma once

#include <string>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Finds the demuxer for what io holds. The content decides; the path's extension helps only where the
/// content says nothing. Throws Failure with UnknownFormat if there is none, and with RefersToOtherFiles
/// if it is one that would read other files than this one.
[[nodiscard]] const AVInputFormat& probeFormat(AVIOContext& io, const std::string& path);

}  // namespace krv::media
