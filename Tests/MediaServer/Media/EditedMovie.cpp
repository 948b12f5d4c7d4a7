#include "EditedMovie.h"

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace krv::media::test {
namespace {

struct Box {
    std::string type;
    std::string contents;
};

std::uint32_t readNumber(const std::string& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    }
    return value;
}

std::string written(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

std::string written(const std::vector<Box>& boxes) {
    std::string bytes;
    for (const Box& box : boxes) {
        bytes += written(static_cast<std::uint32_t>(box.contents.size() + 8)) + box.type + box.contents;
    }
    return bytes;
}

std::vector<Box> boxesIn(const std::string& bytes) {
    std::vector<Box> boxes;
    for (std::size_t offset = 0; offset + 8 <= bytes.size();) {
        const std::size_t size = readNumber(bytes, offset);
        if (size < 8 || offset + size > bytes.size()) {
            throw std::runtime_error("unexpected box");
        }
        boxes.push_back({bytes.substr(offset + 4, 4), bytes.substr(offset + 8, size - 8)});
        offset += size;
    }
    return boxes;
}

std::string& contentsOf(std::vector<Box>& boxes, const std::string& type) {
    for (Box& box : boxes) {
        if (box.type == type) {
            return box.contents;
        }
    }
    throw std::runtime_error("no box " + type);
}

/// The units of an edit list: lengths are in units of the movie, starts in units of the track.
struct Scales {
    std::uint32_t movie;
    std::uint32_t track;
};

std::string editList(const std::vector<Part>& parts, const Scales& scales, std::uint32_t trackStart) {
    std::string list = written(0) + written(static_cast<std::uint32_t>(parts.size()));
    for (const Part& part : parts) {
        list += written(static_cast<std::uint32_t>(std::lround((part.to - part.from) * scales.movie)));
        list += written(trackStart + static_cast<std::uint32_t>(std::lround(part.from * scales.track)));
        list += written(0x10000);
    }
    return written({{"elst", list}});
}

/// Returns where the recording starts in the track: after the priming of audio and the delay of reordered frames. The
/// edit list that a muxer writes ends with the whole recording.
std::uint32_t startOf(std::vector<Box>& track) {
    std::vector<Box> edits = boxesIn(contentsOf(track, "edts"));
    const std::string& list = contentsOf(edits, "elst");
    return readNumber(list, list.size() - 8);
}

void edit(std::vector<Box>& track, const std::vector<Part>& parts, std::uint32_t movieScale, std::uint32_t length) {
    std::vector<Box> media = boxesIn(contentsOf(track, "mdia"));
    const Scales scales{movieScale, readNumber(contentsOf(media, "mdhd"), 12)};
    const std::string list = editList(parts, scales, startOf(track));
    contentsOf(track, "edts") = list;
    contentsOf(track, "tkhd").replace(20, 4, written(length));
}

}  // namespace

OutputPath editedMovie(const std::string& recording, const std::vector<Part>& parts) {
    std::vector<Box> file = boxesIn(readFile(recording));
    if (file.back().type != "moov") {
        throw std::runtime_error("the index is not at the end");  // else it must not grow
    }
    std::vector<Box> movie = boxesIn(file.back().contents);
    std::string& header = contentsOf(movie, "mvhd");
    const std::uint32_t scale = readNumber(header, 12);
    double seconds = 0;
    for (const Part& part : parts) {
        seconds += part.to - part.from;
    }
    const auto length = static_cast<std::uint32_t>(std::lround(seconds * scale));
    header.replace(16, 4, written(length));
    for (Box& box : movie) {
        if (box.type == "trak") {
            std::vector<Box> track = boxesIn(box.contents);
            edit(track, parts, scale, length);
            box.contents = written(track);
        }
    }
    file.back().contents = written(movie);
    OutputPath output(recording.substr(recording.rfind('.') + 1));
    writeFile(output.path(), written(file));
    return output;
}

}  // namespace krv::media::test
