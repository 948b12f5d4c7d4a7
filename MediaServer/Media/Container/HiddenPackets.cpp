#include <limits>

#include <MediaServer/Media/Container/HiddenPackets.h>

namespace krv::media {

HiddenPackets hiddenPackets(const AVStream& stream) {
    auto& indexed = const_cast<AVStream&>(stream);  // the functions only read it
    HiddenPackets found;
    bool shown = false;        // a packet so far
    bool hidden = false;       // a packet since the last shown one
    bool steppedBack = false;  // the decoding time since then, as it does where an edit begins
    std::int64_t last = std::numeric_limits<std::int64_t>::min();
    const int count = avformat_index_get_entries_count(&indexed);
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry& entry = *avformat_index_get_entry(&indexed, i);
        steppedBack |= entry.timestamp <= last;
        last = entry.timestamp;
        if ((entry.flags & AVINDEX_DISCARD_FRAME) != 0) {
            hidden = true;
            continue;
        }
        found.before |= hidden && !shown;
        found.betweenEdits |= hidden && shown && steppedBack;
        found.among |= hidden && shown && !steppedBack;
        shown = true;
        hidden = steppedBack = false;
    }
    return found;
}

}  // namespace krv::media
