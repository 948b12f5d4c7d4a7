// Players that read from a network need the index in front of the samples, but it is complete only after the last of
// them. FFmpeg's way is to write all samples, and then to move them back by the size of the index, which reads and
// writes the whole file once more. If the size of the index is about known, room can be left for it. What remains of
// the room is filled with an empty box.
#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <optional>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <MediaServer/Media/Container/Boxes.h>
#include <MediaServer/Media/Container/MovieIndex.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

constexpr std::int64_t kBoxHeader = 8;
/// Where the table of places begins in its box, behind version and number of entries.
constexpr std::size_t kTable = 8;
/// So much is moved at a time.
constexpr std::int64_t kPart = std::int64_t{4} << 20;

/// Adds the distance to the numbers of a table with fields of this size.
bool moveTable(std::span<std::byte> movieBox, Bytes table, std::size_t field, std::int64_t distance) {
    if (table.size() < kTable) {
        return true;
    }
    const auto count = std::min<std::uint64_t>(numberIn(table, 4, 4), (table.size() - kTable) / field);
    const auto begin = static_cast<std::size_t>(table.data() - movieBox.data()) + kTable;
    const std::uint64_t most = field == 4 ? std::numeric_limits<std::uint32_t>::max() : INT64_MAX;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::span<std::byte> place = movieBox.subspan(begin + i * field, field);
        const std::uint64_t now = numberIn(place, 0, field);
        const std::uint64_t moved = now + static_cast<std::uint64_t>(distance);
        if (now > most || moved > most) {
            return false;
        }
        setNumber(place, moved);
    }
    return true;
}

/// Moves a part of the file back, beginning at its end.
bool moveBack(int descriptor, std::int64_t begin, std::int64_t end, std::int64_t distance,
              const std::function<void(std::int64_t)>& moved) {
    std::vector<std::byte> part(static_cast<std::size_t>(std::min(kPart, end - begin)));
    while (end > begin) {
        const std::int64_t size = std::min(kPart, end - begin);
        end -= size;
        const auto bytes = std::span(part).first(static_cast<std::size_t>(size));
        if (!readAll(descriptor, bytes, end) || !writeAll(descriptor, bytes, end + distance)) {
            return false;
        }
        moved(size);
    }
    return true;
}

/// Writes an empty box. Only its beginning, because nobody reads the rest.
bool writeEmptyBox(int descriptor, std::int64_t at, std::int64_t size) {
    std::array<std::byte, 2 * kBoxHeader> beginning{};
    setNumber(std::span(beginning).first(4), static_cast<std::uint64_t>(size));
    const auto type = std::as_bytes(std::span("free").first(4));
    std::copy(type.begin(), type.end(), beginning.begin() + 4);
    const auto written = static_cast<std::size_t>(std::min<std::int64_t>(size, 2 * kBoxHeader));
    return writeAll(descriptor, std::span(beginning).first(written), at);
}

[[noreturn]] void misplaced(const char* reason) {
    throw Failure({.cause = FailureCause::InternalError, .reason = reason});
}

}  // namespace

std::int64_t indexSize(const ReadAt& readAt, std::int64_t fileSize, std::span<const int> trackIDs) {
    const auto box = readMovieBox(readAt, fileSize);
    if (!box) {
        return 0;
    }
    std::int64_t size = kBoxHeader + static_cast<std::int64_t>(box->size());
    Bytes rest = *box;
    while (const auto track = takeBox(rest)) {
        const auto id = track->type == "trak" ? fieldAfterDates(findBox(track->contents, "tkhd")) : std::nullopt;
        if (id && std::find(trackIDs.begin(), trackIDs.end(), static_cast<int>(*id)) == trackIDs.end()) {
            size -= kBoxHeader + static_cast<std::int64_t>(track->contents.size());
        }
    }
    return size;
}

bool moveChunks(std::span<std::byte> movieBox, std::int64_t distance) {
    Bytes rest = movieBox;
    while (const auto track = takeBox(rest)) {
        const auto tables = track->type == "trak" ? findSampleTables(track->contents) : std::nullopt;
        if (!tables) {
            continue;
        }
        const auto narrow = findBox(*tables, "stco");
        const auto wide = findBox(*tables, "co64");
        if ((narrow && !moveTable(movieBox, *narrow, 4, distance)) ||
            (wide && !moveTable(movieBox, *wide, 8, distance))) {
            return false;
        }
    }
    return true;
}

int moveIndexToFront(int descriptor, const IndexRoom& room, const std::function<void(std::int64_t)>& moved) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return errno;
    }
    const std::int64_t samples = room.at + room.size;
    const auto place = findMovieBox(readAtDescriptor(descriptor), samples, status.st_size);
    if (!place || place->offset + place->size != status.st_size) {
        misplaced("the muxer has not written the index at the end");
    }
    const std::int64_t begin = place->offset - kBoxHeader;
    std::vector<std::byte> index(static_cast<std::size_t>(kBoxHeader + place->size));
    if (!readAll(descriptor, index, begin)) {
        return errno;
    }
    const auto size = static_cast<std::int64_t>(index.size());
    const std::int64_t filler = room.size - size;
    const bool fits = filler == 0 || filler >= kBoxHeader;
    const std::int64_t missing = fits ? 0 : std::max<std::int64_t>(-filler, 0) + (filler > 0 ? kBoxHeader : 0);
    const std::int64_t left = filler + missing;
    if (!moveChunks(std::span(index).subspan(kBoxHeader), room.size + missing)) {
        misplaced("the file is too large for its index");
    }
    const bool done = (missing == 0 || moveBack(descriptor, samples, begin, missing, moved)) &&
                      writeAll(descriptor, index, room.at) &&
                      (left == 0 || writeEmptyBox(descriptor, room.at + size, left)) &&
                      ftruncate(descriptor, begin + missing) == 0;
    return done ? 0 : errno;
}

}  // namespace krv::media
