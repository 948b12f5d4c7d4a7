#pragma once

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

/// Reads a big-endian unsigned integer of 1 to 8 bytes. Eight bytes must be readable at p for any size; in a property
/// list at least the trailer follows every number.
[[nodiscard]] inline std::uint64_t bigEndian(const std::uint8_t* p, unsigned size) noexcept {
    std::uint64_t v = 0;
    std::memcpy(&v, p, sizeof v);
    return __builtin_bswap64(v) >> (64 - 8 * size);
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
    [[nodiscard]] Node node(std::uint64_t index) const;

    /// Returns the ASCII text with this number, empty for any other object. Faster than node() for short texts, such as
    /// keys.
    [[nodiscard]] std::string_view asciiText(std::uint64_t index) const {
        const std::uint8_t* const p = bytes_ + offset(index);
        const unsigned count = *p & 0x0FU;
        if (*p >> 4 == 0x5 && count < 15 && p + 1 + count <= bytes_ + tableOffset_) {
            return {reinterpret_cast<const char*>(p + 1), count};
        }
        const Node text = node(index);
        return text.type == Type::Ascii ? text.ascii() : std::string_view();
    }

    /// Returns the UID with this number, 0 for any other object. Faster than node() for the usual widths.
    [[nodiscard]] std::uint64_t uid(std::uint64_t index) const {
        const std::uint8_t* const p = bytes_ + offset(index);
        const unsigned size = (*p & 0x0FU) + 1;
        if (*p >> 4 == 0x8 && size <= 4 && p + 1 + size <= bytes_ + tableOffset_) {
            return bigEndian(p + 1, size);
        }
        const Node uid = node(index);
        return uid.type == Type::Uid ? uid.bits : 0;
    }

    /// Returns whether the object with this number is a boolean, an integer or a float. The object must be well-formed.
    [[nodiscard]] bool isNumber(std::uint64_t index) const { return bytes_[offset(index)] >> 4 <= 0x2; }

    /// Has the processor load the beginning of the object with this number, which will be needed soon.
    void prefetch(std::uint64_t index) const { __builtin_prefetch(bytes_ + offset(index)); }

    /// Returns the number of the i-th element of an array, or of a dictionary's i-th key (count + i for its i-th
    /// value).
    [[nodiscard]] std::uint64_t reference(const Node& container, std::uint64_t i) const {
        const std::uint64_t index = bigEndian(container.body + i * referenceSize_, referenceSize_);
        if (index >= objectCount_) {
            refuse("reference to a missing object");
        }
        return index;
    }

private:
    [[nodiscard]] std::uint64_t offset(std::uint64_t index) const {
        const std::uint64_t offset = bigEndian(bytes_ + tableOffset_ + index * offsetSize_, offsetSize_);
        if (offset < kHeaderSize || offset >= tableOffset_) {
            refuse("offset out of range");
        }
        return offset;
    }

    static constexpr std::uint64_t kHeaderSize = 8;

    const std::uint8_t* bytes_;
    std::uint64_t size_;
    std::uint64_t tableOffset_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    unsigned offsetSize_ = 0;
    unsigned referenceSize_ = 0;
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
