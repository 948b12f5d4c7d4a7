#include <algorithm>
#include <cmath>
#include <optional>

#include <sys/stat.h>

#include <MediaServer/Media/Container/Boxes.h>
#include <MediaServer/Media/Container/EditList.h>

namespace krv::media {
namespace {

constexpr std::size_t kMostEdits = 100'000;

std::vector<std::int64_t> editStarts(Bytes list) {
    std::vector<std::int64_t> starts;
    if (list.size() < 8) {
        return starts;
    }
    const bool wide = numberIn(list, 0, 1) == 1;
    const std::size_t entry = wide ? 20 : 12;
    const auto count =
        std::min<std::size_t>({static_cast<std::size_t>(numberIn(list, 4, 4)), (list.size() - 8) / entry, kMostEdits});
    std::int64_t start = 0;
    for (std::size_t i = 0; i < count; ++i) {
        starts.push_back(start);
        const auto length = static_cast<std::int64_t>(numberIn(list, 8 + i * entry, wide ? 8 : 4));
        if (length < 0 || __builtin_add_overflow(start, length, &start)) {
            break;
        }
    }
    return starts;
}

}  // namespace

MovieEdits parseMovieEdits(Bytes movieBox) {
    MovieEdits edits;
    edits.timeScale = fieldAfterDates(findBox(movieBox, "mvhd")).value_or(0);
    while (const auto box = takeBox(movieBox)) {
        if (box->type != "trak") {
            continue;
        }
        const auto id = fieldAfterDates(findBox(box->contents, "tkhd"));
        const auto container = findBox(box->contents, "edts");
        const auto list = container ? findBox(*container, "elst") : std::nullopt;
        if (id) {
            edits.tracks.push_back({*id, list ? editStarts(*list) : std::vector<std::int64_t>{}});
        }
    }
    return edits;
}

MovieEdits readMovieEdits(const ReadAt& readAt, std::int64_t fileSize) {
    const auto box = readMovieBox(readAt, fileSize);
    return box ? parseMovieEdits(*box) : MovieEdits{};
}

namespace {

/// A number in a box, which can be changed.
class Field {
public:
    Field(std::span<std::byte> box, Bytes part, std::size_t offset, bool wide)
        : bytes_(box.subspan(static_cast<std::size_t>(part.data() - box.data()) + offset, wide ? 8 : 4)) {}

    [[nodiscard]] std::uint64_t value() const { return numberIn(bytes_, 0, bytes_.size()); }
    void lowerTo(std::uint64_t value) const {
        if (value < this->value()) {
            setNumber(bytes_, value);
        }
    }

private:
    std::span<std::byte> bytes_;
};

bool isWide(Bytes header) {
    return !header.empty() && numberIn(header, 0, 1) == 1;
}

/// Returns the length of a movie or track, which its header contains behind other fields.
std::optional<Field> lengthIn(std::span<std::byte> box, std::optional<Bytes> header, std::size_t before) {
    if (!header) {
        return std::nullopt;
    }
    const bool wide = isWide(*header);
    const std::size_t offset = (wide ? 20 : 12) + before;
    return header->size() >= offset + (wide ? 8 : 4) ? std::optional(Field(box, *header, offset, wide)) : std::nullopt;
}

/// Shortens the last edit so that the whole list ends at this time.
void shortenEdits(std::span<std::byte> box, Bytes list, std::uint64_t end) {
    const std::vector<std::int64_t> starts = editStarts(list);
    const bool wide = isWide(list);
    const std::size_t entry = wide ? 20 : 12;
    if (!starts.empty() && static_cast<std::uint64_t>(starts.back()) <= end) {
        Field(box, list, 8 + (starts.size() - 1) * entry, wide)
            .lowerTo(end - static_cast<std::uint64_t>(starts.back()));
    }
}

}  // namespace

void shortenTracks(std::span<std::byte> box, std::span<const TrackEnd> ends) {
    const auto header = findBox(box, "mvhd");
    const auto scale = fieldAfterDates(header).value_or(0);
    std::uint64_t longest = 0;
    Bytes rest = box;
    while (const auto track = takeBox(rest)) {
        if (track->type != "trak") {
            continue;
        }
        const auto trackHeader = findBox(track->contents, "tkhd");
        const auto container = findBox(track->contents, "edts");
        const auto list = container ? findBox(*container, "elst") : std::nullopt;
        const auto length = lengthIn(box, trackHeader, 8);
        const auto end =
            std::find_if(ends.begin(), ends.end(),
                         [id = fieldAfterDates(trackHeader)](const TrackEnd& each) { return each.id == id; });
        if (length && list && end != ends.end()) {
            const auto time = static_cast<std::uint64_t>(std::llround(std::max(end->seconds, 0.0) * scale));
            shortenEdits(box, *list, time);
            length->lowerTo(time);
        }
        longest = std::max(longest, length ? length->value() : 0);
    }
    if (const auto length = lengthIn(box, header, 4)) {
        length->lowerTo(longest);
    }
}

bool shortenTracks(int descriptor, std::span<const TrackEnd> ends) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return false;
    }
    const ReadAt readAt = readAtDescriptor(descriptor);
    const auto place = findMovieBox(readAt, 0, status.st_size);
    if (!place) {
        return false;
    }
    std::vector<std::byte> box(static_cast<std::size_t>(place->size));
    if (!readAt(place->offset, box)) {
        return false;
    }
    shortenTracks(box, ends);
    return writeAll(descriptor, box, place->offset);
}

}  // namespace krv::media
