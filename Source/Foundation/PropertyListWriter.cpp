#include <array>
#include <bit>
#include <cstring>

#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/PropertyListWriter.h>

namespace krv::plist {
namespace {

constexpr std::size_t kLargestReference = 4;

/// Writes the low 1, 2, 4 or 8 bytes of the value.
std::uint8_t* putBigEndian(std::uint8_t* out, std::uint64_t v, unsigned size) noexcept {
    switch (size) {
    case 1:
        *out = static_cast<std::uint8_t>(v);
        return out + 1;
    case 2: {
        const std::uint16_t swapped = __builtin_bswap16(static_cast<std::uint16_t>(v));
        std::memcpy(out, &swapped, sizeof swapped);
        return out + sizeof swapped;
    }
    case 4: {
        const std::uint32_t swapped = __builtin_bswap32(static_cast<std::uint32_t>(v));
        std::memcpy(out, &swapped, sizeof swapped);
        return out + sizeof swapped;
    }
    default: {
        const std::uint64_t swapped = __builtin_bswap64(v);
        std::memcpy(out, &swapped, sizeof swapped);
        return out + sizeof swapped;
    }
    }
}

/// Returns the smallest of 1, 2, 4 and 8 bytes in which the value fits.
unsigned widthOf(std::uint64_t v) noexcept {
    return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFF ? 4 : 8;
}

std::uint8_t* putInteger(std::uint8_t* out, std::uint64_t v) noexcept {
    if (v <= 0xFF) {
        *out = 0x10;
        return putBigEndian(out + 1, v, 1);
    }
    if (v <= 0xFFFF) {
        *out = 0x11;
        return putBigEndian(out + 1, v, 2);
    }
    const unsigned width = widthOf(v);
    *out = static_cast<std::uint8_t>(0x10 | std::countr_zero(width));
    return putBigEndian(out + 1, v, width);
}

std::uint8_t* putUid(std::uint8_t* out, std::uint32_t uid) noexcept {
    const unsigned width = uid <= 0xFF ? 1 : uid <= 0xFFFF ? 2 : 4;
    *out++ = static_cast<std::uint8_t>(0x80 | (width - 1));
    return width == 1 ? putBigEndian(out, uid, 1) : width == 2 ? putBigEndian(out, uid, 2) : putBigEndian(out, uid, 4);
}

std::uint8_t* putScalar(std::uint8_t* out, Atom::Kind kind, std::uint64_t bits) noexcept {
    if (kind == Atom::Kind::Integer) {
        return putInteger(out, bits);
    }
    switch (kind) {
    case Atom::Kind::Boolean:
        *out = static_cast<std::uint8_t>(0x08 | bits);
        return out + 1;
    case Atom::Kind::Real32:
        *out = 0x22;
        return putBigEndian(out + 1, bits, 4);
    default:
        *out = 0x23;
        return putBigEndian(out + 1, bits, 8);
    }
}

std::uint8_t* putMarker(std::uint8_t* out, unsigned kind, std::uint64_t count) noexcept {
    if (count < 15) {
        *out++ = static_cast<std::uint8_t>(kind | count);
        return out;
    }
    *out++ = static_cast<std::uint8_t>(kind | 15);
    return putInteger(out, count);
}

/// Copies a text, most of which are a few bytes long.
std::uint8_t* putBytes(std::uint8_t* out, std::string_view bytes) noexcept {
    const auto copyEnds = [out, bytes]<typename Word>(Word /*of this size*/) {
        // Two words that may overlap.
        const auto* const first = bytes.data();
        const auto* const last = bytes.data() + bytes.size() - sizeof(Word);
        Word head{};
        Word tail{};
        std::memcpy(&head, first, sizeof head);
        std::memcpy(&tail, last, sizeof tail);
        std::memcpy(out, &head, sizeof head);
        std::memcpy(out + bytes.size() - sizeof tail, &tail, sizeof tail);
    };
    const std::size_t size = bytes.size();
    using TwoWords = std::array<std::uint64_t, 2>;
    if (size > 2 * sizeof(TwoWords)) {
        std::memcpy(out, bytes.data(), size);
    } else if (size >= sizeof(TwoWords)) {
        copyEnds(TwoWords{});
    } else if (size >= sizeof(std::uint64_t)) {
        copyEnds(std::uint64_t{});
    } else if (size >= sizeof(std::uint32_t)) {
        copyEnds(std::uint32_t{});
    } else {
        for (std::size_t i = 0; i < size; ++i) {
            out[i] = static_cast<std::uint8_t>(bytes[i]);
        }
    }
    return out + size;
}

/// Writes the offsets of all objects, of sizeof(Word) bytes each.
template <typename Word>
std::uint8_t* putOffsets(std::uint8_t* out, std::span<const std::uint64_t> offsets) noexcept {
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        (void)putBigEndian(out + i * sizeof(Word), offsets[i], sizeof(Word));
    }
    return out + offsets.size() * sizeof(Word);
}

/// The second walk, for references of kReferenceSize bytes.
template <unsigned kReferenceSize>
class Writer {
public:
    Writer(const Graph& graph, std::uint8_t* out)
        : graph_(graph)
        , begin_(out)
        , out_(out) {}

    /// Writes the archive and returns its length, including the splices. The output must have room for the rest.
    std::size_t write(std::uint32_t rootUid) {
        std::memcpy(out_, "bplist00", 8);
        out_ += 8;
        startObject();
        out_ = putMarker(out_, 0xD0, 4);
        std::uint8_t* references = reserve(8);
        for (const std::uint32_t key : {kAtomVersion, kAtomObjects, kAtomArchiver, kAtomTop}) {
            refer(references, atomIndex(key));
        }
        refer(references, atomIndex(kAtomVersionNumber));
        refer(references, objectsIndex());
        refer(references, atomIndex(kAtomArchiverName));
        refer(references, startObject());
        out_ = putMarker(out_, 0xD0, 1);
        references = reserve(2);
        refer(references, atomIndex(kAtomRoot));
        refer(references, uidIndex(rootUid));
        finish();
        return static_cast<std::size_t>(offset());
    }

private:
    /// Starts the next stored object at the present position and returns its index.
    std::uint32_t startObject() {
        graph_.offsets[count_] = offset();
        return count_++;
    }

    [[nodiscard]] std::uint64_t offset() const { return static_cast<std::uint64_t>(out_ - begin_) + spliced_; }

    std::uint8_t* reserve(std::size_t references) {
        std::uint8_t* p = out_;
        out_ += references * kReferenceSize;
        return p;
    }

    static void refer(std::uint8_t*& p, std::uint32_t index) { p = putBigEndian(p, index, kReferenceSize); }

    std::uint32_t atomIndex(std::uint32_t id) {
        Atom& atom = graph_.atoms[id];
        if (atom.index == kNone) {
            atom.index = startObject();
            putAtom(atom);
        }
        return atom.index;
    }

    void putAtom(const Atom& atom) {
        switch (atom.kind) {
        case Atom::Kind::Ascii:
            putContents(0x50, atom.bytes);
            break;
        case Atom::Kind::Data:
            putContents(0x40, atom.bytes);
            break;
        case Atom::Kind::Utf16:
            out_ = writeUtf16(atom.bytes, putMarker(out_, 0x60, atom.bits));
            break;
        default:
            out_ = putScalar(out_, atom.kind, atom.bits);
        }
    }

    void putContents(unsigned kind, std::string_view bytes) {
        out_ = putMarker(out_, kind, bytes.size());
        if (bytes.size() < kLong || !graph_.splices) {
            out_ = putBytes(out_, bytes);
            return;
        }
        graph_.splices->push_back({static_cast<std::size_t>(out_ - begin_), bytes});
        spliced_ += bytes.size();
    }

    std::uint32_t uidIndex(std::uint32_t uid) {
        std::uint32_t& known = graph_.uidIndexes[uid];
        if (known == kNone) {
            known = startObject();
            out_ = putUid(out_, uid);
        }
        return known;
    }

    std::uint32_t objectsIndex() {
        const std::uint32_t result = startObject();
        out_ = putMarker(out_, 0xA0, graph_.entries.size());
        std::uint8_t* references = reserve(graph_.entries.size());
        for (const Entry& entry : graph_.entries) {
            refer(references, entryIndex(entry));
        }
        return result;
    }

    std::uint32_t entryIndex(const Entry& entry) {
        if (entry.kind == Entry::Kind::Scalar) {
            const std::uint32_t result = startObject();
            out_ = putScalar(out_, entry.scalar, entry.value);
            return result;
        }
        return entry.kind == Entry::Kind::Atom ? atomIndex(static_cast<std::uint32_t>(entry.value))
                                               : objectIndex(entry);
    }

    std::uint32_t objectIndex(const Entry& entry) {
        const std::uint32_t result = startObject();
        out_ = putMarker(out_, 0xD0, entry.count);
        std::uint8_t* references = reserve(std::size_t{2} * entry.count);
        const std::span<const Item> items(graph_.items + entry.value, entry.count);
        for (const Item& item : items) {
            refer(references, atomIndex(item.key));
        }
        for (const Item& item : items) {
            switch (item.kind) {
            case Item::Kind::Atom:
                refer(references, atomIndex(item.first));
                break;
            case Item::Kind::Uid:
                refer(references, uidIndex(item.first));
                break;
            case Item::Kind::UidList:
            case Item::Kind::AtomList:
                refer(references, listIndex(item));
                break;
            }
        }
        return result;
    }

    std::uint32_t listIndex(const Item& item) {
        const std::uint32_t result = startObject();
        out_ = putMarker(out_, 0xA0, item.count);
        std::uint8_t* references = reserve(item.count);
        for (const std::uint32_t element : std::span(graph_.uids + item.first, item.count)) {
            refer(references, item.kind == Item::Kind::UidList ? uidIndex(element) : atomIndex(element));
        }
        return result;
    }

    void finish() {
        const std::uint64_t tableOffset = offset();
        const unsigned offsetSize = widthOf(tableOffset);
        const std::span<const std::uint64_t> offsets(graph_.offsets, count_);
        out_ = offsetSize == 1   ? putOffsets<std::uint8_t>(out_, offsets)
               : offsetSize == 2 ? putOffsets<std::uint16_t>(out_, offsets)
               : offsetSize == 4 ? putOffsets<std::uint32_t>(out_, offsets)
                                 : putOffsets<std::uint64_t>(out_, offsets);
        std::memset(out_, 0, 6);
        out_ += 6;
        *out_++ = static_cast<std::uint8_t>(offsetSize);
        *out_++ = static_cast<std::uint8_t>(kReferenceSize);
        out_ = putBigEndian(out_, count_, 8);
        out_ = putBigEndian(out_, 0, 8);
        out_ = putBigEndian(out_, tableOffset, 8);
    }

    const Graph graph_;
    std::uint8_t* const begin_;
    std::uint8_t* out_;
    /// The bytes of all splices.
    std::uint64_t spliced_ = 0;
    std::uint32_t count_ = 0;
};

}  // namespace

std::size_t archiveSizeBound(std::uint64_t storedObjects, std::size_t references, std::size_t atomByteBound) noexcept {
    constexpr std::size_t kHeader = 8;
    constexpr std::size_t kTrailer = 32;
    constexpr std::size_t kLargestOffset = 8;
    return kHeader + atomByteBound + storedObjects * (kLargestMarker + kLargestOffset) +
           references * kLargestReference + kTrailer;
}

// Inlined as a whole, so that the writer's position stays in a register. In memory, each byte that is written might be a
// part of it, so that it would be stored and loaded again for each.
[[gnu::flatten]] std::size_t writeArchive(const Graph& graph, std::uint32_t rootUid, std::uint64_t storedObjects,
                                          std::uint8_t* out) {
    return storedObjects <= 0xFF     ? Writer<1>(graph, out).write(rootUid)
           : storedObjects <= 0xFFFF ? Writer<2>(graph, out).write(rootUid)
                                     : Writer<4>(graph, out).write(rootUid);
}

}  // namespace krv::plist
