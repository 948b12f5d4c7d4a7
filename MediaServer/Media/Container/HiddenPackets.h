#pragma once

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Which packets of a stream are stored but not shown, because the edit list of the movie cuts their frames out. What
/// follows the last shown packet of an edit does not count: it can be left out.
struct HiddenPackets {
    /// Before the first shown packet, which needs them to be decoded.
    bool before = false;
    /// Between shown packets of one edit: frames after its end that shown frames refer to.
    bool among = false;
    /// Before a later edit, which needs them to be decoded. If these are copied, they are shown.
    bool betweenEdits = false;
    /// Whether there are several edits at all. Without hidden packets between them, copies are exact.
    bool severalEdits = false;
};

/// Returns which packets are hidden according to the stream's index. Nothing is hidden in formats without edits.
[[nodiscard]] HiddenPackets hiddenPackets(const AVStream& stream);

}  // namespace krv::media
