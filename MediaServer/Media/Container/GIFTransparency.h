#pragma once

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns whether the first frame of a GIF has transparent pixels. All GIFs are decoded with an alpha channel, and
/// most use it only to leave out what has not changed. Reads and decodes that frame. True if the
/// frame cannot be decoded. Borrows the descriptor.
[[nodiscard]] bool showsThrough(int descriptor, const AVInputFormat& gif);

}  // namespace krv::media
