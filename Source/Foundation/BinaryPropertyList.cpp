#include <bit>
#include <cstring>
#include <limits>
#include <string_view>

#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/Exception.h>

namespace krv::plist {
namespace {

constexpr char kMagic[] = "bplist00";
constexpr std::uint64_t kTrailerSize = 32;

}  // namespace

void refuse(const char* why) {
    throw Exception(std::string(kMalformedArchiveException), why);
}

float Node::real32() const noexcept {
    return type == Type::Real32 ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                                : static_cast<float>(std::bit_cast<double>(bits));
}

double Node::real() const noexcept {
    return type == Type::Real32 ? static_cast<double>(real32()) : std::bit_cast<double>(bits);
}

Reader::Reader(std::span<const std::byte> bytes)
    : bytes_(reinterpret_cast<const std::uint8_t*>(bytes.data()))
    , size_(bytes.size()) {
    if (size_ < kHeaderSize + kTrailerSize + 2 || std::memcmp(bytes_, kMagic, kHeaderSize) != 0) {
        refuse("not a binary property list");
    }
    const std::uint8_t* trailer = bytes_ + size_ - kTrailerSize;
    offsetSize_ = trailer[6];
    referenceSize_ = trailer[7];
    objectCount_ = bigEndian(trailer + 8, 8);
    topObject_ = bigEndian(trailer + 16, 8);
    tableOffset_ = bigEndian(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
        refuse("offset or reference size out of range");
    }
    const std::uint64_t tableEnd = size_ - kTrailerSize;
    if (tableOffset_ <= kHeaderSize || tableOffset_ >= tableEnd || (tableEnd - tableOffset_) % offsetSize_ != 0 ||
        (tableEnd - tableOffset_) / offsetSize_ != objectCount_) {
        refuse("offset table does not fill the file");
    }
    if (objectCount_ > tableOffset_ - kHeaderSize) {
        refuse("offset table has more entries than there are objects");
    }
    if (topObject_ >= objectCount_) {
        refuse("missing top object");
    }
    table_ = bytes_ + tableOffset_;
    offsetShift_ = static_cast<unsigned>(64 - 8 * offsetSize_);
    referenceShift_ = static_cast<unsigned>(64 - 8 * referenceSize_);
    units_[static_cast<std::size_t>(Unit::Reference)] = static_cast<std::uint8_t>(referenceSize_);
    units_[static_cast<std::size_t>(Unit::TwoReferences)] = static_cast<std::uint8_t>(2 * referenceSize_);
}

constexpr Reader::Shapes Reader::shapes() {
    Shapes all{};
    all[0x08].isBoolean = true;
    all[0x09].isBoolean = true;
    for (unsigned low = 0; low < 4; ++low) {
        all[0x10 + low] = {Type::Integer, static_cast<std::uint8_t>(1U << low)};
        all[0x80 + low] = {Type::Uid, static_cast<std::uint8_t>(low + 1)};
    }
    all[0x22] = {Type::Real32, 4};
    all[0x23] = {Type::Real64, 8};
    for (unsigned count = 0; count < 16; ++count) {
        all[0x40 + count] = {Type::Data, 0, Unit::Byte};
        all[0x50 + count] = {Type::Ascii, 0, Unit::Byte};
        all[0x60 + count] = {Type::Utf16, 0, Unit::TwoBytes};
        all[0xA0 + count] = {Type::Array, 0, Unit::Reference};
        all[0xD0 + count] = {Type::Dictionary, 0, Unit::TwoReferences};
    }
    return all;
}

constinit const Reader::Shapes Reader::kShapes = shapes();

Node Reader::anyNode(const std::uint8_t* p) const {
    const std::uint8_t* const end = bytes_ + tableOffset_;
    const unsigned marker = *p++;
    const unsigned low = marker & 0x0FU;
    const auto need = [&p, end](std::uint64_t size) {
        if (static_cast<std::uint64_t>(end - p) < size) {
            refuse("object overlaps the offset table");
        }
    };
    const auto scalar = [&](Type type, unsigned size) {
        need(size);
        return Node{type, 0, p, bigEndian(p, size)};
    };
    // Reads the count of text, data and containers, and checks it against the remaining bytes, `unit` bytes each.
    const auto counted = [&](Type type, std::uint64_t unit) {
        std::uint64_t count = low;
        if (low == 15) {
            need(1);
            const unsigned countMarker = *p++;
            const unsigned size = 1U << (countMarker & 0x0FU);
            if (countMarker < 0x10 || countMarker > 0x13) {
                refuse("count is not an integer");
            }
            need(size);
            count = bigEndian(p, size);
            p += size;
        }
        if (count > static_cast<std::uint64_t>(end - p) / unit) {
            refuse("count exceeds the remaining bytes");
        }
        return Node{type, count, p, 0};
    };

    switch (marker >> 4) {
    case 0x0:
        if (marker != 0x08 && marker != 0x09) {
            refuse("unknown kind of object");
        }
        return {Type::Boolean, 0, p, marker & 1U};
    case 0x1:
        if (low == 4) {
            need(16);
            const std::uint64_t high = bigEndian(p, 8);
            const std::uint64_t value = bigEndian(p + 8, 8);
            const bool negative = (value >> 63) != 0;
            if (high != (negative ? std::numeric_limits<std::uint64_t>::max() : 0)) {
                refuse("integer does not fit in 64 bits");
            }
            return {Type::Integer, 0, p, value};
        }
        if (low > 3) {
            refuse("integer of unknown width");
        }
        return scalar(Type::Integer, 1U << low);
    case 0x2:
        if (low == 2) {
            return scalar(Type::Real32, 4);
        }
        if (low == 3) {
            return scalar(Type::Real64, 8);
        }
        refuse("float of unknown width");
    case 0x3:
        if (low != 3) {
            refuse("date of unknown width");
        }
        return scalar(Type::Date, 8);
    case 0x4:
        return counted(Type::Data, 1);
    case 0x5:
        return counted(Type::Ascii, 1);
    case 0x6:
        return counted(Type::Utf16, 2);
    case 0x8: {
        const unsigned size = low + 1;
        need(size);
        const unsigned lead = size > 8 ? size - 8 : 0;
        if ((lead > 0 && bigEndian(p, lead) != 0) ||
            bigEndian(p + lead, size - lead) > std::numeric_limits<std::uint32_t>::max()) {
            refuse("UID does not fit in 32 bits");
        }
        return {Type::Uid, 0, p, bigEndian(p + lead, size - lead)};
    }
    case 0xA:
        return counted(Type::Array, referenceSize_);
    case 0xD:
        return counted(Type::Dictionary, 2 * referenceSize_);
    default:
        refuse("unknown kind of object");
    }
}

namespace {

/// Calls put with each scalar of the text, in order.
template <typename Put>
void forEachScalar(const std::uint8_t* units, std::uint64_t count, const Put& put) {
    constexpr std::uint32_t kReplacement = 0xFFFD;
    const auto unit = [units](std::uint64_t i) {
        return static_cast<std::uint32_t>(units[2 * i] << 8 | units[2 * i + 1]);
    };
    for (std::uint64_t i = 0; i < count; ++i) {
        std::uint32_t c = unit(i);
        if (c >= 0xD800 && c < 0xE000) {
            const std::uint32_t next = c < 0xDC00 && i + 1 < count ? unit(i + 1) : 0;
            if (next >= 0xDC00 && next < 0xE000) {
                c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
                ++i;
            } else {
                c = kReplacement;
            }
        }
        put(c);
    }
}

}  // namespace

std::size_t utf8Length(const std::uint8_t* units, std::uint64_t count) noexcept {
    std::size_t length = 0;
    forEachScalar(units, count, [&length](std::uint32_t c) {
        length += c < 0x80 ? 1U : c < 0x800 ? 2U : c < 0x10000 ? 3U : 4U;
    });
    return length;
}

std::string utf8FromUtf16(const std::uint8_t* units, std::uint64_t count) {
    std::string out(utf8Length(units, count), '\0');
    char* p = out.data();
    const auto put = [&p](std::uint32_t byte) { *p++ = static_cast<char>(byte); };
    forEachScalar(units, count, [&put](std::uint32_t c) {
        if (c < 0x80) {
            put(c);
        } else if (c < 0x800) {
            put(0xC0 | c >> 6);
            put(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            put(0xE0 | c >> 12);
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        }
    });
    return out;
}

namespace {

/// Decodes one scalar of UTF-8 and advances p. Returns -1 if it is not UTF-8, which includes overlong forms and
/// surrogates.
std::int32_t nextScalar(const std::uint8_t*& p, const std::uint8_t* end) noexcept {
    const std::uint32_t first = *p++;
    if (first < 0x80) {
        return static_cast<std::int32_t>(first);
    }
    unsigned more = 0;
    std::uint32_t scalar = 0;
    std::uint32_t least = 0;
    if (first >= 0xC2 && first < 0xE0) {
        more = 1;
        scalar = first & 0x1F;
        least = 0x80;
    } else if (first >= 0xE0 && first < 0xF0) {
        more = 2;
        scalar = first & 0x0F;
        least = 0x800;
    } else if (first >= 0xF0 && first < 0xF5) {
        more = 3;
        scalar = first & 0x07;
        least = 0x10000;
    } else {
        return -1;
    }
    if (end - p < static_cast<std::ptrdiff_t>(more)) {
        return -1;
    }
    for (; more > 0; --more) {
        const std::uint32_t next = *p++;
        if ((next & 0xC0) != 0x80) {
            return -1;
        }
        scalar = scalar << 6 | (next & 0x3F);
    }
    if (scalar < least || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar < 0xE000)) {
        return -1;
    }
    return static_cast<std::int32_t>(scalar);
}

}  // namespace

std::int64_t utf16Length(std::string_view utf8) noexcept {
    const auto* p = reinterpret_cast<const std::uint8_t*>(utf8.data());
    const auto* const end = p + utf8.size();
    std::int64_t units = 0;
    while (p != end) {
        const std::int32_t scalar = nextScalar(p, end);
        if (scalar < 0) {
            return -1;
        }
        units += scalar >= 0x10000 ? 2 : 1;
    }
    return units;
}

std::uint8_t* writeUtf16(std::string_view utf8, std::uint8_t* out) noexcept {
    const auto* p = reinterpret_cast<const std::uint8_t*>(utf8.data());
    const auto* const end = p + utf8.size();
    const auto put = [&out](std::uint32_t unit) {
        *out++ = static_cast<std::uint8_t>(unit >> 8);
        *out++ = static_cast<std::uint8_t>(unit);
    };
    while (p != end) {
        const auto scalar = static_cast<std::uint32_t>(nextScalar(p, end));
        if (scalar >= 0x10000) {
            put(0xD800 + ((scalar - 0x10000) >> 10));
            put(0xDC00 + ((scalar - 0x10000) & 0x3FF));
        } else {
            put(scalar);
        }
    }
    return out;
}

}  // namespace krv::plist
