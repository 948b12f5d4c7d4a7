#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include <MediaServer/Media/Container/Truncation.h>

namespace krv::media {
namespace {

/// More outermost boxes than this are not looked at. A recording of a day in fragments of a second has 170,000.
constexpr int kMostBoxes = 1'000'000;
constexpr std::size_t kBoxHeader = 8;
constexpr std::size_t kLongBoxHeader = 16;

std::uint64_t bigEndian(std::span<const std::byte> bytes) {
    std::uint64_t value = 0;
    for (const std::byte each : bytes) {
        value = value << 8 | std::to_integer<std::uint64_t>(each);
    }
    return value;
}

bool hasName(std::span<const std::byte> bytes, std::string_view name) {
    return std::equal(name.begin(), name.end(), bytes.begin(), [](char letter, std::byte each) {
        return std::to_integer<unsigned char>(each) == static_cast<unsigned char>(letter);
    });
}

/// Returns offset + size, or the largest number if that is too large.
std::int64_t sum(std::int64_t offset, std::uint64_t size) {
    constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
    return size > static_cast<std::uint64_t>(kMost - offset) ? kMost : offset + static_cast<std::int64_t>(size);
}

/// A number of EBML in 1 to 8 bytes, without the bit that marks its length.
struct EBMLNumber {
    std::uint64_t value = 0;
    std::size_t length = 0;  ///< 0 if it is invalid
    bool unknown = false;    ///< all ones: a size that was not known when it was written
};

EBMLNumber ebmlNumber(std::span<const std::byte> bytes) {
    EBMLNumber number;
    const auto first = bytes.empty() ? 0U : std::to_integer<unsigned>(bytes.front());
    std::size_t length = 1;
    for (unsigned bit = 0x80; bit != 0 && (first & bit) == 0; bit >>= 1) {
        ++length;
    }
    if (first == 0 || length > bytes.size()) {
        return number;
    }
    const std::uint64_t mask = (std::uint64_t{1} << 7 * length) - 1;
    number.value = bigEndian(bytes.first(length)) & mask;
    number.unknown = number.value == mask;
    number.length = length;
    return number;
}

/// The file begins with the EBML header, which the segment follows.
std::int64_t sizeOfMatroska(const ReadAt& readAt, std::int64_t fileSize) {
    constexpr std::size_t kID = 4;
    constexpr std::uint64_t kSegment = 0x18538067;
    std::array<std::byte, kID + 8> head{};
    if (!readAt(0, head)) {
        return fileSize;
    }
    const EBMLNumber header = ebmlNumber(std::span(head).subspan(kID));
    const std::int64_t segment = sum(static_cast<std::int64_t>(kID + header.length), header.value);
    if (header.length == 0 || header.unknown || segment >= fileSize || !readAt(segment, head) ||
        bigEndian(std::span(head).first(kID)) != kSegment) {
        return fileSize;
    }
    const EBMLNumber size = ebmlNumber(std::span(head).subspan(kID));
    return size.length == 0 || size.unknown ? fileSize
                                            : sum(segment + static_cast<std::int64_t>(kID + size.length), size.value);
}

bool isBoxName(std::span<const std::byte> name) {
    return std::all_of(name.begin(), name.end(), [](std::byte each) {
        const auto letter = std::to_integer<unsigned>(each);
        return (letter >= ' ' && letter <= '~') || letter == 0xA9;  // the copyright sign begins names of tags
    });
}

/// Boxes follow one another until the end.
std::int64_t sizeOfBoxes(const ReadAt& readAt, std::int64_t fileSize) {
    std::int64_t offset = 0;
    for (int i = 0; i < kMostBoxes && fileSize - offset >= static_cast<std::int64_t>(kBoxHeader); ++i) {
        std::array<std::byte, kLongBoxHeader> header{};
        const bool isLong = fileSize - offset >= static_cast<std::int64_t>(kLongBoxHeader);
        if (!readAt(offset, std::span(header).first(isLong ? kLongBoxHeader : kBoxHeader))) {
            return fileSize;
        }
        std::uint64_t size = bigEndian(std::span(header).first(4));
        if (size == 1 && isLong) {
            size = bigEndian(std::span(header).last(8));
        }
        if (size < kBoxHeader || !isBoxName(std::span(header).subspan(4, 4))) {
            return fileSize;  // the box extends to the end of the file, is damaged, or is not a box
        }
        offset = sum(offset, size);
    }
    return offset;
}

/// The size is little-endian. Programs that stream leave the size 0 or all ones.
std::int64_t sizeOfRIFF(std::span<const std::byte> head, std::int64_t fileSize) {
    std::array<std::byte, 4> size{};
    std::reverse_copy(head.begin() + 4, head.begin() + 8, size.begin());
    const std::uint64_t value = bigEndian(size);
    return value == 0 || value == std::numeric_limits<std::uint32_t>::max() ? fileSize : sum(8, value);
}

}  // namespace

std::optional<std::int64_t> declaredSize(const ReadAt& readAt, std::int64_t fileSize) {
    std::array<std::byte, kBoxHeader> head{};
    if (!readAt(0, head)) {
        return std::nullopt;
    }
    constexpr std::uint64_t kEBML = 0x1A45DFA3;
    std::int64_t size = fileSize;
    if (bigEndian(std::span(head).first(4)) == kEBML) {
        size = sizeOfMatroska(readAt, fileSize);
    } else if (hasName(head, "RIFF")) {
        size = sizeOfRIFF(head, fileSize);
    } else {
        constexpr std::array<std::string_view, 7> kFirstBoxes{"ftyp", "moov", "mdat", "free", "wide", "skip", "styp"};
        const auto name = std::span(head).subspan(4);
        if (std::any_of(kFirstBoxes.begin(), kFirstBoxes.end(), [&](auto each) { return hasName(name, each); })) {
            size = sizeOfBoxes(readAt, fileSize);
        }
    }
    return size > fileSize ? std::optional(size) : std::nullopt;
}

std::optional<std::int64_t> firstMissingTime(const AVFormatContext& format, std::int64_t fileSize) {
    std::optional<std::int64_t> first;
    for (unsigned i = 0; i < format.nb_streams; ++i) {
        AVStream* const stream = format.streams[i];
        const AVMediaType type = stream->codecpar->codec_type;
        if ((type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) ||
            (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
            continue;
        }
        for (int entry = 0; entry < avformat_index_get_entries_count(stream); ++entry) {
            const AVIndexEntry& at = *avformat_index_get_entry(stream, entry);
            if (at.pos >= fileSize || at.size > fileSize - at.pos) {
                const std::int64_t time = av_rescale_q(at.timestamp, stream->time_base, AVRational{1, AV_TIME_BASE});
                first = std::min(first.value_or(time), time);
                break;
            }
        }
    }
    return first;
}

}  // namespace krv::media
