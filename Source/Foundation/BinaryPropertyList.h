#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

/// Reading of the binary property list "bplist00" directly from the caller's bytes.
///
/// The reader trusts nothing. The trailer must account for every byte, each offset must lie between header and offset
/// table, each object must end before the table, and a count is checked against the remaining bytes before it is used.
/// A violation throws Exception kMalformedArchiveException. The reader allocates no memory.
namespace krv::plist {

/// Throws Exception kMalformedArchiveException with this reason.
[[noreturn]] void refuse(const char* why);

/// Reads the big-endian unsigned integer that remains when the eight bytes at p are shifted to the right by so many
/// bits.
[[nodiscard]] inline std::uint64_t bigEndianShifted(const std::uint8_t* p, unsigned shift) noexcept {
    std::uint64_t v = 0;
    std::memcpy(&v, p, sizeof v);
    return __builtin_bswap64(v) >> shift;
}

/// Reads a big-endian unsigned integer of 1 to 8 bytes. Eight bytes must be readable at p for any size; in a property
/// list at least the trailer follows every number.
[[nodiscard]] inline std::uint64_t bigEndian(const std::uint8_t* p, unsigned size) noexcept {
    return bigEndianShifted(p, 64 - 8 * size);
}

enum class Type : std::uint8_t { Boolean, Integer, Real32, Real64, Date, Data, Ascii, Utf16, Uid, Array, Dictionary };

/// One stored object. Borrows the bytes from which it was read.
struct Node {
    Type type;
    /// Number of bytes of data and ASCII text, units of UTF-16 text, elements of an array, or pairs of a dictionary.
    std::uint64_t count;
    /// Contents: text, data, or the references of a container (a dictionary's keys before its values).
    const std::uint8_t* body;
    /// Scalars: the boolean, the integer, the UID, or the bits of the float.
    std::uint64_t bits;

    /// Returns the text of type Ascii.
    [[nodiscard]] std::string_view ascii() const noexcept {
        return {reinterpret_cast<const char*>(body), static_cast<std::size_t>(count)};
    }
    [[nodiscard]] std::int64_t integer() const noexcept { return static_cast<std::int64_t>(bits); }
    /// Returns the seconds of a date, or the value of a float of either width.
    [[nodiscard]] double real() const noexcept;
    [[nodiscard]] float real32() const noexcept;
};

/// A property list. Borrows the bytes.
class Reader {
public:
    explicit Reader(std::span<const std::byte> bytes);

    [[nodiscard]] std::uint64_t objectCount() const noexcept { return objectCount_; }
    [[nodiscard]] std::uint64_t topObject() const noexcept { return topObject_; }
    [[nodiscard]] std::uint64_t byteCount() const noexcept { return size_; }

    /// Returns the object with this number, which must be below objectCount().
    ///
    /// The path of the usual kinds and widths is inline for speed: an archive of a few hundred bytes has dozens of them.
    [[nodiscard]] Node node(std::uint64_t index) const {
        const std::uint8_t* const p = object(index);
        const Shape shape = kShapes[*p];
        if (shape.size != 0 && fits(p + 1, shape.size)) {
            return {shape.type, 0, p + 1, bigEndian(p + 1, shape.size)};
        }
        if (shape.unit != Unit::None) {
            const Contents contents = shortContents(p);
            if (fits(contents.body, contents.count * units_[static_cast<std::size_t>(shape.unit)])) {
                return {shape.type, contents.count, contents.body, 0};
            }
        }
        if (shape.isBoolean) {
            return {Type::Boolean, 0, p + 1, *p & 1U};
        }
        return anyNode(p);
    }

    /// Returns the ASCII text with this number, empty for any other object. Faster than node() for short texts, such as
    /// keys.
    [[nodiscard]] std::string_view asciiText(std::uint64_t index) const {
        const std::uint8_t* const p = object(index);
        if (*p >> 4 == 0x5) {
            const Contents contents = shortContents(p);
            if (fits(contents.body, contents.count)) {
                return {reinterpret_cast<const char*>(contents.body), contents.count};
            }
        }
        const Node text = anyNode(p);
        return text.type == Type::Ascii ? text.ascii() : std::string_view();
    }

    /// Returns the UID with this number, 0 for any other object. Faster than node() for the usual widths.
    [[nodiscard]] std::uint64_t uid(std::uint64_t index) const {
        const std::uint8_t* const p = object(index);
        const unsigned size = (*p & 0x0FU) + 1;
        if (*p >> 4 == 0x8 && size <= 4 && fits(p + 1, size)) {
            return bigEndian(p + 1, size);
        }
        const Node uid = anyNode(p);
        return uid.type == Type::Uid ? uid.bits : 0;
    }

    /// Has the processor load the beginning of the object with this number, which will be needed soon.
    void prefetch(std::uint64_t index) const { __builtin_prefetch(object(index)); }

    /// Returns the number of the i-th element of an array, or of a dictionary's i-th key (count + i for its i-th
    /// value).
    [[nodiscard]] std::uint64_t reference(const Node& container, std::uint64_t i) const {
        const std::uint64_t index = bigEndianShifted(container.body + i * referenceSize_, referenceShift_);
        if (index >= objectCount_) {
            refuse("reference to a missing object");
        }
        return index;
    }

private:
    /// The size of one counted element.
    enum class Unit : std::uint8_t { None, Byte, TwoBytes, Reference, TwoReferences };
    /// The type and layout that the first byte of an object encodes.
    struct Shape {
        Type type = Type::Boolean;
        /// Bytes of a scalar of the usual widths, otherwise 0.
        std::uint8_t size = 0;
        /// None unless the object has a count.
        Unit unit = Unit::None;
        bool isBoolean = false;
    };
    using Shapes = std::array<Shape, 256>;
    static const Shapes kShapes;
    [[nodiscard]] static constexpr Shapes shapes();

    /// Returns the first byte of the object with this number.
    [[nodiscard]] const std::uint8_t* object(std::uint64_t index) const {
        const std::uint64_t offset = bigEndianShifted(table_ + index * offsetSize_, offsetShift_);
        // One comparison for both ends: an offset below the header's size becomes a large number.
        if (offset - kHeaderSize >= tableOffset_ - kHeaderSize) {
            refuse("offset out of range");
        }
        return bytes_ + offset;
    }

    /// Returns whether that many bytes, fewer than 2^62, lie between this place and the offset table.
    [[nodiscard]] bool fits(const std::uint8_t* place, std::uint64_t size) const {
        return static_cast<std::uint64_t>(place - bytes_) + size <= tableOffset_;
    }

    struct Contents {
        std::uint64_t count;
        const std::uint8_t* body;
    };
    /// Returns the contents of an object whose count is below 256, and for any other a count that does not fit. The two
    /// bytes after the first can be read, because the trailer follows.
    [[nodiscard]] static Contents shortContents(const std::uint8_t* p) {
        const unsigned count = *p & 0x0FU;
        if (count < 15) {
            return {count, p + 1};
        }
        constexpr unsigned kByteInteger = 0x10;
        constexpr std::uint64_t kDoesNotFit = std::uint64_t{1} << 56;
        return {p[1] == kByteInteger ? p[2] : kDoesNotFit, p + 3};
    }

    /// Returns the object at this place, of any kind and width.
    [[nodiscard]] Node anyNode(const std::uint8_t* p) const;

    static constexpr std::uint64_t kHeaderSize = 8;

    const std::uint8_t* bytes_;
    std::uint64_t size_;
    const std::uint8_t* table_ = nullptr;
    std::uint64_t tableOffset_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    std::uint64_t offsetSize_ = 0;
    std::uint64_t referenceSize_ = 0;
    unsigned offsetShift_ = 0;
    unsigned referenceShift_ = 0;
    /// Bytes of each Unit.
    std::array<std::uint8_t, 5> units_{0, 1, 2, 0, 0};
};

/// Converts big-endian UTF-16 to UTF-8. A lone surrogate becomes U+FFFD. A leading byte-order mark is kept as text.
[[nodiscard]] std::string utf8FromUtf16(const std::uint8_t* units, std::uint64_t count);

/// Returns the length of what utf8FromUtf16 returns.
[[nodiscard]] std::size_t utf8Length(const std::uint8_t* units, std::uint64_t count) noexcept;

/// Returns the number of UTF-16 units that the text needs, or -1 if it is not UTF-8.
[[nodiscard]] std::int64_t utf16Length(std::string_view utf8) noexcept;

/// Writes the text, which must be UTF-8, as big-endian UTF-16 and returns the end of what was written.
std::uint8_t* writeUtf16(std::string_view utf8, std::uint8_t* out) noexcept;

}  // namespace krv::plist
