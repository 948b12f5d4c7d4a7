#include <algorithm>
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
    const unsigned width = widthOf(v);
    *out++ = static_cast<std::uint8_t>(0x10 | std::countr_zero(width));
    return putBigEndian(out, v, width);
}

std::uint8_t* putMarker(std::uint8_t* out, unsigned kind, std::uint64_t count) noexcept {
    if (count < 15) {
        *out++ = static_cast<std::uint8_t>(kind | count);
        return out;
    }
    *out++ = static_cast<std::uint8_t>(kind | 15);
    return putInteger(out, count);
}

std::uint8_t* putAtom(std::uint8_t* out, const Atom& atom) noexcept {
    switch (atom.kind) {
    case Atom::Kind::Boolean:
        *out = static_cast<std::uint8_t>(0x08 | atom.bits);
        return out + 1;
    case Atom::Kind::Integer:
        return putInteger(out, atom.bits);
    case Atom::Kind::Real32:
        *out = 0x22;
        return putBigEndian(out + 1, atom.bits, 4);
    case Atom::Kind::Real64:
        *out = 0x23;
        return putBigEndian(out + 1, atom.bits, 8);
    case Atom::Kind::Utf16:
        return writeUtf16(atom.bytes, putMarker(out, 0x60, atom.bits));
    case Atom::Kind::Data:
    case Atom::Kind::Ascii:
        break;
    }
    out = putMarker(out, atom.kind == Atom::Kind::Data ? 0x40 : 0x50, atom.bytes.size());
    return std::copy(atom.bytes.begin(), atom.bytes.end(), out);
}

/// The second walk, for references of kReferenceSize bytes.
template <unsigned kReferenceSize>
class Writer {
public:
    Writer(const Graph& graph, std::uint8_t* out)
        : graph_(graph)
        , begin_(out)
        , out_(out) {}

    /// Writes the archive and returns its length. The output must have room for it.
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
        return static_cast<std::size_t>(out_ - begin_);
    }

private:
    /// Starts the next stored object at the present position and returns its index.
    std::uint32_t startObject() {
        graph_.offsets[count_] = static_cast<std::uint64_t>(out_ - begin_);
        return count_++;
    }

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
            out_ = putAtom(out_, atom);
        }
        return atom.index;
    }

    std::uint32_t uidIndex(std::uint32_t uid) {
        std::uint32_t& known = graph_.uidIndexes[uid];
        if (known == kNone) {
            known = startObject();
            const unsigned width = widthOf(uid);
            *out_++ = static_cast<std::uint8_t>(0x80 | (width - 1));
            out_ = putBigEndian(out_, uid, width);
        }
        return known;
    }

    std::uint32_t objectsIndex() {
        const std::uint32_t result = startObject();
        out_ = putMarker(out_, 0xA0, graph_.entries.size());
        std::uint8_t* references = reserve(graph_.entries.size());
        for (const Entry& entry : graph_.entries) {
            refer(references, entry.isAtom ? atomIndex(entry.first) : objectIndex(entry));
        }
        return result;
    }

    std::uint32_t objectIndex(const Entry& entry) {
        const std::uint32_t result = startObject();
        out_ = putMarker(out_, 0xD0, entry.count);
        std::uint8_t* references = reserve(std::size_t{2} * entry.count);
        const std::span<const Item> items(graph_.items + entry.first, entry.count);
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
        const auto tableOffset = static_cast<std::uint64_t>(out_ - begin_);
        const unsigned offsetSize = widthOf(tableOffset);
        for (const std::uint64_t offset : std::span(graph_.offsets, count_)) {
            out_ = putBigEndian(out_, offset, offsetSize);
        }
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

std::size_t writeArchive(const Graph& graph, std::uint32_t rootUid, std::uint64_t storedObjects,
                         std::uint8_t* out) noexcept {
    return storedObjects <= 0xFF     ? Writer<1>(graph, out).write(rootUid)
           : storedObjects <= 0xFFFF ? Writer<2>(graph, out).write(rootUid)
                                     : Writer<4>(graph, out).write(rootUid);
}

}  // namespace krv::plist
