#pragma once

#include <MediaServer/Media/Subtitles/Font.h>

namespace krv::server {

/// Finds a font of this machine for subtitles whose own font is missing, and maps it into memory. An operation that does
/// not use it reads nothing of it. Call it before the sandbox is entered. The mapping is never undone. Returns an empty
/// font if none of the usual ones is installed.
[[nodiscard]] media::Font mapDefaultFont();

}  // namespace krv::server
