// Writing an archive takes two walks and no tree.
//
// The first walk follows the object graph and gives each object its number in "$objects". A number has to be given
// before the contents are known (the contents refer to later numbers), so what an object holds is noted in flat
// arrays: an Entry for each number, Items (key and value) for each keyed object, and the UID lists of containers.
// Text and scalars become Atoms. Equal texts and the two booleans are one atom each and stored once; numbers are not
// compared with each other, which would cost more than the bytes it saves.
//
// After the first walk the number of stored objects is known exactly, and with it the width of a reference; an upper
// bound of the size is known too. The second walk goes through the entries in order and writes everything into one
// buffer of that size. A container's references are left open until its contents have been written behind it, which
// gives them their places: storage is depth first, keys before values.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/BinaryPropertyList.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>

namespace krv {
namespace {

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
/// Marker, count marker and an eight-byte count.
constexpr std::size_t kLargestHead = 10;
constexpr std::size_t kLargestReference = 4;

[[noreturn]] void cannotArchive(std::string why) {
    throw Exception(std::string(kInvalidArgumentException), std::move(why));
}

template <typename Word>
std::uint64_t load(const char* p) noexcept {
    Word v = 0;
    std::memcpy(&v, p, sizeof v);
    return v;
}

struct TextScan {
    std::uint64_t hash;
    bool ascii;
};

/// Hashes the text and looks for bytes above 0x7F in the same pass, eight bytes at a time.
TextScan scan(std::string_view text) noexcept {
    constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15U;
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    std::uint64_t hash = text.size() * kMultiplier;
    std::uint64_t seen = 0;
    const auto mix = [&](std::uint64_t word) {
        seen |= word;
        hash = (hash ^ word) * kMultiplier;
        hash ^= hash >> 29;
    };
    const char* p = text.data();
    std::size_t left = text.size();
    for (; left > 8; left -= 8, p += 8) {
        mix(load<std::uint64_t>(p));
    }
    // The rest, in two words that may overlap.
    if (left >= 4) {
        mix(load<std::uint32_t>(p) | load<std::uint32_t>(p + left - 4) << 32);
    } else if (left >= 2) {
        mix(load<std::uint16_t>(p) | load<std::uint16_t>(p + left - 2) << 16);
    } else if (left == 1) {
        mix(load<std::uint8_t>(p));
    }
    return {hash, (seen & kHighBits) == 0};
}

/// A stored scalar or text.
struct Atom {
    enum class Kind : std::uint8_t { Boolean, Integer, Real32, Real64, Data, Ascii, Utf16 };
    Kind kind;
    /// Whether anything refers to it. Only a known atom can be without use.
    bool used;
    /// Place in the file, once written.
    std::uint32_t place;
    /// Number in "$objects" of a string, 0 when it is only a key or a class name so far.
    std::uint32_t uid;
    std::uint32_t hash;
    /// Scalars: the value's bits. Text and data: the number of bytes (UTF-16: of units).
    std::uint64_t bits;
    std::string_view bytes;
};

/// Atoms that stand in every archive, or in most: an encoder has them from the start, under these ids.
enum KnownAtom : std::uint32_t {
    kAtomNull,
    kAtomVersion,
    kAtomVersionNumber,
    kAtomObjects,
    kAtomArchiver,
    kAtomArchiverName,
    kAtomTop,
    kAtomRoot,
    kAtomClass,
    kAtomClassName,
    kAtomClasses,
    kAtomNSObject,
    kAtomKeys,
    kAtomElements,
    kAtomNSDictionary,
    kAtomNSMutableDictionary,
    kKnownAtoms
};

/// One keyed value of a stored object.
struct Item {
    enum class Kind : std::uint8_t { Atom, Uid, UidList, AtomList };
    std::uint32_t key;
    Kind kind;
    /// Atom or UID; for a list its first position.
    std::uint32_t first;
    std::uint32_t count;
};

/// What stands under one number of "$objects": an atom, or items.
struct Entry {
    std::uint32_t first;
    std::uint32_t count;
    bool isAtom;
};

/// Open addressing over ids, for a table that only grows.
class IdTable {
public:
    void clear() {
        if (used_ > 0) {
            slots_.assign(kSmallest, kNone);
            used_ = 0;
        }
    }
    /// The id for which same(id) holds, or a free place that becomes newId.
    template <typename Same, typename HashOf>
    std::uint32_t findOrInsert(std::uint32_t hash, std::uint32_t newId, const Same& same, const HashOf& hashOf) {
        if (2 * (used_ + 1) > slots_.size()) {
            grow(hashOf);
        }
        std::size_t mask = slots_.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            if (slots_[i] == kNone) {
                slots_[i] = newId;
                ++used_;
                return newId;
            }
            if (same(slots_[i])) {
                return slots_[i];
            }
        }
    }
    [[nodiscard]] std::size_t capacity() const { return slots_.capacity(); }

private:
    static constexpr std::size_t kSmallest = 128;

    template <typename HashOf>
    void grow(const HashOf& hashOf) {
        std::vector<std::uint32_t> old(slots_.size() * 2, kNone);
        old.swap(slots_);
        const std::size_t mask = slots_.size() - 1;
        for (const std::uint32_t id : old) {
            if (id != kNone) {
                std::size_t i = hashOf(id) & mask;
                while (slots_[i] != kNone) {
                    i = (i + 1) & mask;
                }
                slots_[i] = id;
            }
        }
    }

    std::vector<std::uint32_t> slots_ = std::vector<std::uint32_t>(kSmallest, kNone);
    std::size_t used_ = 0;
};

/// The low bytes of the value, in 1, 2, 4 or 8 bytes.
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

/// The smallest of 1, 2, 4 and 8 bytes that holds the value.
unsigned widthOf(std::uint64_t v) noexcept {
    return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFF ? 4 : 8;
}

std::uint8_t* putInteger(std::uint8_t* out, std::uint64_t v) noexcept {
    const unsigned width = widthOf(v);
    *out++ = static_cast<std::uint8_t>(0x10 | std::countr_zero(width));
    return putBigEndian(out, v, width);
}

std::uint8_t* putHead(std::uint8_t* out, unsigned kind, std::uint64_t count) noexcept {
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
        return plist::writeUtf16(atom.bytes, putHead(out, 0x60, atom.bits));
    case Atom::Kind::Data:
    case Atom::Kind::Ascii:
        break;
    }
    out = putHead(out, atom.kind == Atom::Kind::Data ? 0x40 : 0x50, atom.bytes.size());
    return std::copy(atom.bytes.begin(), atom.bytes.end(), out);
}

std::string sizeText(Size size) {
    return fmt::format("{{{:.17g}, {:.17g}}}", size.width, size.height);
}

/// What the first walk has found out, and where the second one keeps its places.
struct Graph {
    Atom* atoms;
    const Item* items;
    const std::uint32_t* uids;
    std::span<const Entry> entries;
    /// The offset of each stored object, by place.
    std::uint64_t* offsets;
    /// The place of the UID object for each number, kNone until it is written.
    std::uint32_t* uidPlaces;
};

/// The second walk, for references of this many bytes.
template <unsigned kReferenceSize>
class Writer {
public:
    Writer(const Graph& graph, std::uint8_t* out)
        : graph_(graph)
        , begin_(out)
        , out_(out) {}

    /// Writes the archive and returns its length. The space must do for it.
    std::size_t write(std::uint32_t rootUid) {
        std::memcpy(out_, "bplist00", 8);
        out_ += 8;
        place();
        out_ = putHead(out_, 0xD0, 4);
        std::uint8_t* references = reserve(8);
        for (const std::uint32_t key : {kAtomVersion, kAtomObjects, kAtomArchiver, kAtomTop}) {
            refer(references, atomPlace(key));
        }
        refer(references, atomPlace(kAtomVersionNumber));
        refer(references, objectsPlace());
        refer(references, atomPlace(kAtomArchiverName));
        refer(references, place());
        out_ = putHead(out_, 0xD0, 1);
        references = reserve(2);
        refer(references, atomPlace(kAtomRoot));
        refer(references, uidPlace(rootUid));
        finish();
        return static_cast<std::size_t>(out_ - begin_);
    }

private:
    /// Opens the next stored object here and returns its place.
    std::uint32_t place() {
        graph_.offsets[places_] = static_cast<std::uint64_t>(out_ - begin_);
        return places_++;
    }

    std::uint8_t* reserve(std::size_t references) {
        std::uint8_t* p = out_;
        out_ += references * kReferenceSize;
        return p;
    }

    static void refer(std::uint8_t*& p, std::uint32_t place) { p = putBigEndian(p, place, kReferenceSize); }

    std::uint32_t atomPlace(std::uint32_t id) {
        Atom& atom = graph_.atoms[id];
        if (atom.place == kNone) {
            atom.place = place();
            out_ = putAtom(out_, atom);
        }
        return atom.place;
    }

    std::uint32_t uidPlace(std::uint32_t uid) {
        std::uint32_t& known = graph_.uidPlaces[uid];
        if (known == kNone) {
            known = place();
            const unsigned width = widthOf(uid);
            *out_++ = static_cast<std::uint8_t>(0x80 | (width - 1));
            out_ = putBigEndian(out_, uid, width);
        }
        return known;
    }

    std::uint32_t objectsPlace() {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xA0, graph_.entries.size());
        std::uint8_t* references = reserve(graph_.entries.size());
        for (const Entry& entry : graph_.entries) {
            refer(references, entry.isAtom ? atomPlace(entry.first) : objectPlace(entry));
        }
        return result;
    }

    std::uint32_t objectPlace(const Entry& entry) {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xD0, entry.count);
        std::uint8_t* references = reserve(std::size_t{2} * entry.count);
        const std::span<const Item> items(graph_.items + entry.first, entry.count);
        for (const Item& item : items) {
            refer(references, atomPlace(item.key));
        }
        for (const Item& item : items) {
            switch (item.kind) {
            case Item::Kind::Atom:
                refer(references, atomPlace(item.first));
                break;
            case Item::Kind::Uid:
                refer(references, uidPlace(item.first));
                break;
            case Item::Kind::UidList:
            case Item::Kind::AtomList:
                refer(references, listPlace(item));
                break;
            }
        }
        return result;
    }

    std::uint32_t listPlace(const Item& item) {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xA0, item.count);
        std::uint8_t* references = reserve(item.count);
        for (const std::uint32_t element : std::span(graph_.uids + item.first, item.count)) {
            refer(references, item.kind == Item::Kind::UidList ? uidPlace(element) : atomPlace(element));
        }
        return result;
    }

    void finish() {
        const auto tableOffset = static_cast<std::uint64_t>(out_ - begin_);
        const unsigned offsetSize = widthOf(tableOffset);
        for (const std::uint64_t offset : std::span(graph_.offsets, places_)) {
            out_ = putBigEndian(out_, offset, offsetSize);
        }
        std::memset(out_, 0, 6);
        out_ += 6;
        *out_++ = static_cast<std::uint8_t>(offsetSize);
        *out_++ = static_cast<std::uint8_t>(kReferenceSize);
        out_ = putBigEndian(out_, places_, 8);
        out_ = putBigEndian(out_, 0, 8);
        out_ = putBigEndian(out_, tableOffset, 8);
    }

    const Graph graph_;
    std::uint8_t* const begin_;
    std::uint8_t* out_;
    std::uint32_t places_ = 0;
};

}  // namespace

class KeyedArchiver::Encoder {
public:
    Encoder() {
        constexpr std::array<std::string_view, kKnownAtoms> kTexts{"$null",
                                                                   "$version",
                                                                   "",
                                                                   "$objects",
                                                                   "$archiver",
                                                                   "NSKeyedArchiver",
                                                                   "$top",
                                                                   "root",
                                                                   "$class",
                                                                   "$classname",
                                                                   "$classes",
                                                                   "NSObject",
                                                                   "NS.keys",
                                                                   "NS.objects",
                                                                   "NSDictionary",
                                                                   "NSMutableDictionary"};
        for (const std::string_view text : kTexts) {
            if (text.empty()) {
                constexpr std::uint64_t kVersion = 100000;
                scalar(Atom::Kind::Integer, kVersion);
            } else {
                atomOf(text);
            }
            atoms_.back().used = false;
        }
        knownAtoms_ = atoms_;
        knownTable_ = atomTable_;
        knownBound_ = bound_;
    }

    Data archive(const Value& root) {
        clear();
        entries_.push_back({use(kAtomNull), 1, true});
        const std::uint32_t rootUid = number(root);
        Data data = write(rootUid);
        kept_.clear();
        return data;
    }

    [[nodiscard]] bool worthKeeping() const {
        return atoms_.capacity() < kKept && items_.capacity() < kKept && uids_.capacity() < kKept &&
               atomTable_.capacity() < kKept && sharedTable_.capacity() < kKept;
    }

    void item(std::string_view key, Item::Kind kind, std::uint32_t first) { item(atomOf(key), kind, first); }
    std::uint32_t scalar(Atom::Kind kind, std::uint64_t bits) { return add({kind, true, kNone, 0, 0, bits, {}}); }

    std::uint32_t boolean(bool value) {
        std::uint32_t& atom = booleans_[value ? 1 : 0];
        if (atom == kNone) {
            atom = scalar(Atom::Kind::Boolean, value ? 1 : 0);
        }
        return atom;
    }

    /// Holds on to a value until the archive is written: atoms refer to its text.
    const Value& keep(Value value) {
        kept_.push_back(std::move(value));
        return kept_.back();
    }

    /// The number of a value's entry, made when the value is met for the first time; 0 for null.
    std::uint32_t reference(const Value& value) { return value.isNull() ? 0 : number(value); }

private:
    void clear() {
        atoms_ = knownAtoms_;
        items_.clear();
        pending_.clear();
        uids_.clear();
        pendingUids_.clear();
        kept_.clear();
        entries_.clear();
        classes_.clear();
        shared_.clear();
        atomTable_ = knownTable_;
        sharedTable_.clear();
        booleans_ = {kNone, kNone};
        bound_ = knownBound_;
        used_ = 0;
        lists_ = 0;
        objects_ = 0;
        depth_ = 0;
        nullUsed_ = false;
    }

    std::uint32_t intern(const Atom& atom) {
        const auto next = static_cast<std::uint32_t>(atoms_.size());
        const std::uint32_t id = atomTable_.findOrInsert(
            atom.hash, next,
            [&](std::uint32_t other) {
                const Atom& a = atoms_[other];
                return a.hash == atom.hash && a.kind == atom.kind && a.bits == atom.bits && a.bytes == atom.bytes;
            },
            [&](std::uint32_t other) { return atoms_[other].hash; });
        return id == next ? add(atom) : use(id);
    }

    /// The atom is in the archive.
    std::uint32_t use(std::uint32_t id) {
        used_ += atoms_[id].used ? 0U : 1U;
        atoms_[id].used = true;
        return id;
    }

    std::uint32_t add(const Atom& atom) {
        atoms_.push_back(atom);
        ++used_;
        bound_ += kLargestHead + (atom.kind == Atom::Kind::Utf16 ? 2 * atom.bits : atom.bytes.size());
        return static_cast<std::uint32_t>(atoms_.size() - 1);
    }

    std::uint32_t atomOf(std::string_view text) {
        const TextScan scanned = scan(text);
        Atom atom{Atom::Kind::Ascii, true, kNone, 0, static_cast<std::uint32_t>(scanned.hash >> 32), text.size(), text};
        if (!scanned.ascii) {
            const std::int64_t units = plist::utf16Length(text);
            if (units < 0) {
                cannotArchive("text that is not UTF-8 cannot be archived");
            }
            atom.kind = Atom::Kind::Utf16;
            atom.bits = static_cast<std::uint64_t>(units);
        }
        return intern(atom);
    }

    std::uint32_t newEntry(Entry entry) {
        if (entries_.size() >= kNone) {
            cannotArchive("too many objects for one archive");
        }
        entries_.push_back(entry);
        return static_cast<std::uint32_t>(entries_.size() - 1);
    }

    std::uint32_t atomEntry(std::uint32_t atom) { return newEntry({atom, 1, true}); }

    void item(std::uint32_t key, Item::Kind kind, std::uint32_t first, std::uint32_t count = 1) {
        pending_.push_back({key, kind, first, count});
    }

    std::uint32_t textEntry(std::string_view text) {
        const std::uint32_t atom = atomOf(text);
        if (atoms_[atom].uid == 0) {
            const std::uint32_t uid = atomEntry(atom);
            atoms_[atom].uid = uid;
        }
        return atoms_[atom].uid;
    }

    /// A keyed object: its number first, then what body() notes, then its class.
    template <typename Body>
    std::uint32_t keyedObject(const void* identity, std::uint32_t className, std::uint32_t superclassName,
                              const Body& body) {
        if (identity) {
            if (const std::uint32_t known = numberOfShared(identity); known != 0) {
                return known;
            }
        }
        if (++depth_ > kMaximumArchiveDepth) {
            cannotArchive("objects nested too deeply to be archived");
        }
        const std::uint32_t uid = newEntry({0, 0, false});
        if (identity) {
            shared_.back().second = uid;
        }
        const std::size_t begin = pending_.size();
        body();
        item(use(kAtomClass), Item::Kind::Uid, classReference(className, superclassName));
        close(uid, begin);
        --depth_;
        return uid;
    }

    /// Moves the items noted since begin to their final place.
    void close(std::uint32_t uid, std::size_t begin) {
        entries_[uid].first = static_cast<std::uint32_t>(items_.size());
        entries_[uid].count = static_cast<std::uint32_t>(pending_.size() - begin);
        items_.insert(items_.end(), pending_.begin() + static_cast<std::ptrdiff_t>(begin), pending_.end());
        pending_.resize(begin);
        ++objects_;
    }

    /// The number of an object met before, or 0; then it is noted, and the caller stores its number in the last
    /// element of shared_ before anything else is met.
    std::uint32_t numberOfShared(const void* identity) {
        const auto hashOf = [](const void* p) {
            return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(p) * 0x9E3779B97F4A7C15U >> 32);
        };
        const auto next = static_cast<std::uint32_t>(shared_.size());
        const std::uint32_t id = sharedTable_.findOrInsert(
            hashOf(identity), next, [&](std::uint32_t i) { return shared_[i].first == identity; },
            [&](std::uint32_t i) { return hashOf(shared_[i].first); });
        if (id == next) {
            shared_.emplace_back(identity, 0);
        }
        return shared_[id].second;
    }

    /// The number of a class description, made when the class is met for the first time. There is at most one class,
    /// or kNone, between the class and "NSObject".
    std::uint32_t classReference(std::uint32_t name, std::uint32_t superclassName) {
        for (const auto& [known, uid] : classes_) {
            if (known == name) {
                return uid;
            }
        }
        const std::uint32_t uid = newEntry({0, 0, false});
        classes_.emplace_back(use(name), uid);
        const std::size_t begin = pending_.size();
        item(use(kAtomClassName), Item::Kind::Atom, name);
        const auto first = static_cast<std::uint32_t>(uids_.size());
        uids_.push_back(name);
        if (superclassName != kNone) {
            uids_.push_back(use(superclassName));
        }
        uids_.push_back(use(kAtomNSObject));
        list(use(kAtomClasses), Item::Kind::AtomList, first);
        close(uid, begin);
        return uid;
    }

    void list(std::uint32_t key, Item::Kind kind, std::uint32_t first) {
        item(key, kind, first, static_cast<std::uint32_t>(uids_.size()) - first);
        ++lists_;
    }

    /// Numbers each element and notes the list. Nested lists use pendingUids_ as a stack meanwhile.
    template <typename Range, typename NumberOf>
    void uidList(std::uint32_t key, const Range& range, const NumberOf& numberOf) {
        const std::size_t begin = pendingUids_.size();
        for (const auto& element : range) {
            const std::uint32_t uid = numberOf(element);
            pendingUids_.push_back(uid);
        }
        const auto first = static_cast<std::uint32_t>(uids_.size());
        uids_.insert(uids_.end(), pendingUids_.begin() + static_cast<std::ptrdiff_t>(begin), pendingUids_.end());
        pendingUids_.resize(begin);
        list(key, Item::Kind::UidList, first);
    }

    std::uint32_t dictionary(const Dictionary& dictionary) {
        const bool isMutable = dictionary.mutability() == Dictionary::Mutability::Mutable;
        return keyedObject(
            &dictionary, isMutable ? kAtomNSMutableDictionary : kAtomNSDictionary,
            isMutable ? std::uint32_t{kAtomNSDictionary} : kNone, [&] {
                uidList(use(kAtomKeys), dictionary, [&](const auto& entry) { return textEntry(*entry.first); });
                uidList(use(kAtomElements), dictionary, [&](const auto& entry) { return number(entry.second); });
            });
    }

    std::uint32_t error(const Error& error) {
        return keyedObject(&error, atomOf("NSError"), kNone, [&] {
            item("NSDomain", Item::Kind::Uid, textEntry(error.domain()));
            item("NSCode", Item::Kind::Atom, scalar(Atom::Kind::Integer, static_cast<std::uint64_t>(error.code())));
            noteReference("NSUserInfo", error.userInfo() ? dictionary(*error.userInfo()) : 0);
        });
    }

    std::uint32_t dataEntry(const Data& data) {
        if (const std::uint32_t known = numberOfShared(&data); known != 0) {
            return known;
        }
        const std::string_view bytes(reinterpret_cast<const char*>(data.data()), data.size());
        const std::uint32_t uid = atomEntry(add({Atom::Kind::Data, true, kNone, 0, 0, bytes.size(), bytes}));
        shared_.back().second = uid;
        return uid;
    }

    std::uint32_t number(const Value& value) {
        return std::visit(
            [this](const auto& v) -> std::uint32_t {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, std::monostate>) {
                    return keyedObject(nullptr, atomOf("NSNull"), kNone, [] {});
                } else if constexpr (std::is_same_v<T, bool>) {
                    return atomEntry(boolean(v));
                } else if constexpr (std::is_same_v<T, std::int64_t>) {
                    return atomEntry(scalar(Atom::Kind::Integer, static_cast<std::uint64_t>(v)));
                } else if constexpr (std::is_same_v<T, float>) {
                    return atomEntry(scalar(Atom::Kind::Real32, std::bit_cast<std::uint32_t>(v)));
                } else if constexpr (std::is_same_v<T, double>) {
                    return atomEntry(scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(v)));
                } else if constexpr (std::is_same_v<T, Value::StringRef>) {
                    return textEntry(*v);
                } else if constexpr (std::is_same_v<T, Value::DataRef>) {
                    return dataEntry(*v);
                } else if constexpr (std::is_same_v<T, Date>) {
                    return keyedObject(nullptr, atomOf("NSDate"), kNone, [&] {
                        item("NS.time", Item::Kind::Atom,
                             scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(v.secondsSinceReference)));
                    });
                } else if constexpr (std::is_same_v<T, Size>) {
                    return keyedObject(nullptr, atomOf("NSValue"), kNone, [&] {
                        constexpr std::uint64_t kSizeKind = 2;
                        item("NS.special", Item::Kind::Atom, scalar(Atom::Kind::Integer, kSizeKind));
                        item("NS.sizeval", Item::Kind::Uid, textEntry(keep(Value(sizeText(v))).stringValue()));
                    });
                } else if constexpr (std::is_same_v<T, Value::ArrayRef>) {
                    return keyedObject(v.get(), atomOf("NSArray"), kNone, [&] {
                        uidList(use(kAtomElements), *v, [&](const Value& element) { return number(element); });
                    });
                } else if constexpr (std::is_same_v<T, Value::DictionaryRef>) {
                    return dictionary(*v);
                } else if constexpr (std::is_same_v<T, Value::ErrorRef>) {
                    return error(*v);
                } else {
                    const std::string_view superclassName = v->superclassName();
                    const std::uint32_t className = atomOf(v->className());
                    return keyedObject(v.get(), className, superclassName.empty() ? kNone : atomOf(superclassName),
                                       [&] {
                                           KeyedArchiver coder(*this);
                                           v->encodeWithCoder(coder);
                                       });
                }
            },
            value.storage());
    }

public:
    void noteReference(std::string_view key, std::uint32_t uid) {
        nullUsed_ |= uid == 0;
        item(key, Item::Kind::Uid, uid);
    }

private:
    Data write(std::uint32_t rootUid) {
        for (const std::uint32_t atom :
             {kAtomVersion, kAtomObjects, kAtomArchiver, kAtomTop, kAtomVersionNumber, kAtomArchiverName, kAtomRoot}) {
            use(atom);
        }
        // Every entry but "$null" has one UID; the top dictionary, "$objects" and "$top" are the other three.
        const std::uint64_t count = used_ + (entries_.size() - 1) + (nullUsed_ ? 1 : 0) + objects_ + lists_ + 3;
        if (count >= kNone) {
            cannotArchive("too many objects for one archive");
        }
        const std::size_t referenceCount =
            std::size_t{2} * (4 + 1) + entries_.size() + 2 * items_.size() + uids_.size();
        const std::size_t bound = 8 + bound_ + count * (kLargestHead + 8) + referenceCount * kLargestReference + 32;
        offsets_.resize(static_cast<std::size_t>(count));
        uidPlaces_.assign(entries_.size(), kNone);

        const Graph graph{atoms_.data(), items_.data(), uids_.data(), entries_, offsets_.data(), uidPlaces_.data()};
        const auto writeTo = [&](Data& data) {
            auto* const out = reinterpret_cast<std::uint8_t*>(data.data());
            return count <= 0xFF     ? Writer<1>(graph, out).write(rootUid)
                   : count <= 0xFFFF ? Writer<2>(graph, out).write(rootUid)
                                     : Writer<4>(graph, out).write(rootUid);
        };
        if (bound > kKept) {
            Data data(bound);
            data.resize(writeTo(data));
            return data;
        }
        // To clear the whole bound costs a small archive more than to copy what came of it.
        if (buffer_.size() < bound) {
            buffer_.resize(bound);
        }
        const auto size = static_cast<std::ptrdiff_t>(writeTo(buffer_));
        return {buffer_.begin(), buffer_.begin() + size};
    }

    /// The longest that an array is kept for the thread's next archive.
    static constexpr std::size_t kKept = 1 << 16;

    std::vector<Atom> atoms_;
    std::vector<Atom> knownAtoms_;
    IdTable knownTable_;
    std::size_t knownBound_ = 0;
    IdTable atomTable_;
    std::vector<Item> items_;
    std::vector<Item> pending_;
    std::vector<std::uint32_t> uids_;
    std::vector<std::uint32_t> pendingUids_;
    std::vector<Entry> entries_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> classes_;
    std::vector<std::pair<const void*, std::uint32_t>> shared_;
    IdTable sharedTable_;
    std::vector<Value> kept_;
    std::array<std::uint32_t, 2> booleans_{kNone, kNone};
    std::size_t bound_ = 0;
    std::size_t used_ = 0;
    std::size_t lists_ = 0;
    std::size_t objects_ = 0;
    int depth_ = 0;
    bool nullUsed_ = false;

    Data buffer_;
    std::vector<std::uint64_t> offsets_;
    std::vector<std::uint32_t> uidPlaces_;

    friend class KeyedArchiver;
};

Data KeyedArchiver::archivedData(const Value& root) {
    // A thread that archives again finds the arrays of its last archive at their size. They are taken out while in
    // use, because an object's encodeWithCoder may archive something of its own.
    thread_local std::unique_ptr<Encoder> spare;
    std::unique_ptr<Encoder> encoder = std::move(spare);
    if (!encoder) {
        encoder = std::make_unique<Encoder>();
    }
    Data data = encoder->archive(root);
    if (encoder->worthKeeping()) {
        spare = std::move(encoder);
    }
    return data;
}

Data KeyedArchiver::archivedData(const Archivable& root) {
    return archivedData(Value(Value::ObjectRef(Value::ObjectRef(), &root)));
}

void KeyedArchiver::encodeBool(std::string_view key, bool value) {
    encoder_.item(key, Item::Kind::Atom, encoder_.boolean(value));
}

void KeyedArchiver::encodeInt(std::string_view key, std::int64_t value) {
    encoder_.item(key, Item::Kind::Atom, encoder_.scalar(Atom::Kind::Integer, static_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeFloat(std::string_view key, float value) {
    encoder_.item(key, Item::Kind::Atom, encoder_.scalar(Atom::Kind::Real32, std::bit_cast<std::uint32_t>(value)));
}

void KeyedArchiver::encodeDouble(std::string_view key, double value) {
    encoder_.item(key, Item::Kind::Atom, encoder_.scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(value)));
}

void KeyedArchiver::encodeObject(std::string_view key, const Value& value) {
    encoder_.keep(value);
    encoder_.noteReference(key, encoder_.reference(value));
}

}  // namespace krv
