#include <limits>

#include <MediaServer/Media/Container/HiddenPackets.h>

namespace krv::media {

HiddenPackets hiddenPackets(const AVStream& stream) {
    auto& indexed = const_cast<AVStream&>(stream);  // the functions only read it
    HiddenPackets found;
    bool shown = false;        // a packet so far
    bool hidden = false;       // a packet since the last shown one, and since the decoding time stepped back
    bool steppedBack = false;  // since the last shown packet, as it does where an edit begins
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    const int count = avformat_index_get_entries_count(&indexed);
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry& entry = *avformat_index_get_entry(&indexed, i);
        if (shown && entry.timestamp <= last) {
            steppedBack = true;
            hidden = false;
        }
        last = entry.timestamp;
        if ((entry.flags & AVINDEX_DISCARD_FRAME) != 0) {
            hidden = true;
            continue;
        }
        if (steppedBack) {
            // The muxer shows packets that an edit hides among its shown ones, if another edit follows.
            found.severalEdits = true;
            found.betweenEdits |= hidden || found.among;
        } else {
            found.before |= hidden && !shown;
            found.among |= hidden && shown;
        }
        shown = true;
        hidden = steppedBack = false;
    }
    return found;
}

}  // namespace krv::media
