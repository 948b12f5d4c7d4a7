#include <algorithm>
#include <array>
#include <utility>

#include <MediaServer/Media/Container/Boxes.h>

namespace krv::media {
namespace {

constexpr int kMostTopLevelBoxes = 10'000;
constexpr std::size_t kBoxHeader = 8;
constexpr std::size_t kLongBoxHeader = 16;

}  // namespace

std::uint64_t numberIn(Bytes bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value = value << 8 | std::to_integer<std::uint64_t>(bytes[offset + i]);
    }
    return value;
}

void setNumber(std::span<std::byte> bytes, std::uint64_t value) {
    for (std::size_t i = bytes.size(); i-- > 0; value >>= 8) {
        bytes[i] = static_cast<std::byte>(value & 0xff);
    }
}

std::optional<Box> takeBox(Bytes& list) {
    if (list.size() < kBoxHeader) {
        return std::nullopt;
    }
    std::uint64_t size = numberIn(list, 0, 4);
    std::size_t header = kBoxHeader;
    if (size == 1 && list.size() >= kLongBoxHeader) {
        size = numberIn(list, kBoxHeader, 8);
        header = kLongBoxHeader;
    } else if (size == 0) {
        size = list.size();
    }
    if (size < header || size > list.size()) {
        return std::nullopt;
    }
    const std::string_view type(reinterpret_cast<const char*>(list.data()) + 4, 4);
    const auto whole = static_cast<std::size_t>(size);
    const Box box{type, list.subspan(header, whole - header)};
    list = list.subspan(whole);
    return box;
}

std::optional<Bytes> findBox(Bytes list, std::string_view type) {
    while (const auto box = takeBox(list)) {
        if (box->type == type) {
            return box->contents;
        }
    }
    return std::nullopt;
}

std::optional<Bytes> findSampleTables(Bytes track) {
    std::optional<Bytes> tables = track;
    for (const std::string_view type : {"mdia", "minf", "stbl"}) {
        tables = tables ? findBox(*tables, type) : std::nullopt;
    }
    return tables;
}

std::optional<BoxPlace> findTopLevelBox(std::string_view type, const ReadAt& readAt, std::int64_t from,
                                        std::int64_t fileSize) {
    std::int64_t offset = from;
    for (int i = 0; i < kMostTopLevelBoxes && offset <= fileSize - static_cast<std::int64_t>(kBoxHeader); ++i) {
        std::array<std::byte, kLongBoxHeader> header{};
        const auto there = static_cast<std::size_t>(std::min<std::int64_t>(kLongBoxHeader, fileSize - offset));
        if (!readAt(offset, std::span(header).first(there))) {
            break;
        }
        std::uint64_t size = numberIn(header, 0, 4);
        std::int64_t headerSize = kBoxHeader;
        if (size == 1) {
            size = numberIn(header, kBoxHeader, 8);
            headerSize = kLongBoxHeader;
        } else if (size == 0) {
            size = static_cast<std::uint64_t>(fileSize - offset);
        }
        if (size < static_cast<std::uint64_t>(headerSize) || size > static_cast<std::uint64_t>(fileSize - offset)) {
            break;
        }
        if (std::string_view(reinterpret_cast<const char*>(header.data()) + 4, 4) == type) {
            return BoxPlace{offset + headerSize, static_cast<std::int64_t>(size) - headerSize};
        }
        offset += static_cast<std::int64_t>(size);
    }
    return std::nullopt;
}

std::optional<BoxPlace> findMovieBox(const ReadAt& readAt, std::int64_t from, std::int64_t fileSize) {
    const auto place = findTopLevelBox("moov", readAt, from, fileSize);
    return place && place->size <= kLargestMovieBox ? place : std::nullopt;
}

std::optional<std::vector<std::byte>> readMovieBox(const ReadAt& readAt, std::int64_t fileSize) {
    const auto place = findMovieBox(readAt, 0, fileSize);
    if (!place) {
        return std::nullopt;
    }
    std::vector<std::byte> box(static_cast<std::size_t>(place->size));
    return readAt(place->offset, box) ? std::optional(std::move(box)) : std::nullopt;
}

std::optional<std::uint32_t> fieldAfterDates(std::optional<Bytes> header) {
    if (!header || header->empty()) {
        return std::nullopt;
    }
    const std::size_t offset = numberIn(*header, 0, 1) == 1 ? 20 : 12;
    if (header->size() < offset + 4) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(numberIn(*header, offset, 4));
}

}  // namespace krv::media
