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
#include <array>
#include <bit>
#include <cstring>
#include <limits>
#include <memory>
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

std::uint64_t load(const char* p, std::size_t size) noexcept {
    std::uint64_t v = 0;
    std::memcpy(&v, p, size);
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
    for (; left >= 8; left -= 8, p += 8) {
        mix(load(p, 8));
    }
    if (left > 0) {
        mix(load(p, left));
    }
    return {hash, (seen & kHighBits) == 0};
}

/// A stored scalar or text.
struct Atom {
    enum class Kind : std::uint8_t { Boolean, Integer, Real32, Real64, Data, Ascii, Utf16 };
    Kind kind;
    /// Place in the file, once written.
    std::uint32_t place;
    /// Number in "$objects" of a string, 0 when it is only a key or a class name so far.
    std::uint32_t uid;
    std::uint32_t hash;
    /// Scalars: the value's bits. Text and data: the number of bytes (UTF-16: of units).
    std::uint64_t bits;
    std::string_view bytes;
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
        if (slots_.empty()) {
            slots_.assign(kSmallest, kNone);
        } else if (used_ > 0) {
            std::fill(slots_.begin(), slots_.end(), kNone);
        }
        used_ = 0;
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
    [[nodiscard]] std::size_t capacity() const { return slots_.size(); }

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

    std::vector<std::uint32_t> slots_;
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

std::string sizeText(Size size) {
    return fmt::format("{{{:.17g}, {:.17g}}}", size.width, size.height);
}

}  // namespace

class KeyedArchiver::Encoder {
public:
    Data archive(const Value& root) {
        clear();
        atomOf("$null");
        entries_.push_back({0, 1, true});
        const std::uint32_t rootUid = number(root);
        Data data = write(rootUid);
        kept_.clear();
        return data;
    }

    [[nodiscard]] bool worthKeeping() const {
        constexpr std::size_t kKept = 1 << 16;
        return atoms_.capacity() < kKept && items_.capacity() < kKept && uids_.capacity() < kKept &&
               atomTable_.capacity() < kKept && sharedTable_.capacity() < kKept;
    }

    void item(std::string_view key, Item::Kind kind, std::uint32_t first, std::uint32_t count = 1) {
        pending_.push_back({atomOf(key), kind, first, count});
    }
    std::uint32_t scalar(Atom::Kind kind, std::uint64_t bits) { return add({kind, kNone, 0, 0, bits, {}}); }

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
        atoms_.clear();
        items_.clear();
        pending_.clear();
        uids_.clear();
        pendingUids_.clear();
        kept_.clear();
        entries_.clear();
        classes_.clear();
        shared_.clear();
        atomTable_.clear();
        sharedTable_.clear();
        booleans_ = {kNone, kNone};
        bound_ = 0;
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
        if (id == next) {
            add(atom);
        }
        return id;
    }

    std::uint32_t add(const Atom& atom) {
        atoms_.push_back(atom);
        bound_ += kLargestHead + (atom.kind == Atom::Kind::Utf16 ? 2 * atom.bits : atom.bytes.size());
        return static_cast<std::uint32_t>(atoms_.size() - 1);
    }

    std::uint32_t atomOf(std::string_view text) {
        const TextScan scanned = scan(text);
        Atom atom{Atom::Kind::Ascii, kNone, 0, static_cast<std::uint32_t>(scanned.hash >> 32), text.size(), text};
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
    std::uint32_t keyedObject(const void* identity, std::string_view className, std::string_view middle,
                              std::string_view outer, const Body& body) {
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
        item("$class", Item::Kind::Uid, classReference(className, middle, outer));
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

    std::uint32_t classReference(std::string_view name, std::string_view middle, std::string_view outer) {
        for (const auto& [known, uid] : classes_) {
            if (known == name) {
                return uid;
            }
        }
        const std::uint32_t uid = newEntry({0, 0, false});
        classes_.emplace_back(name, uid);
        const std::size_t begin = pending_.size();
        item("$classname", Item::Kind::Atom, atomOf(name));
        const auto first = static_cast<std::uint32_t>(uids_.size());
        for (const std::string_view each : {name, middle, outer, std::string_view("NSObject")}) {
            if (!each.empty()) {
                uids_.push_back(atomOf(each));
            }
        }
        list("$classes", Item::Kind::AtomList, first);
        close(uid, begin);
        return uid;
    }

    void list(std::string_view key, Item::Kind kind, std::uint32_t first) {
        item(key, kind, first, static_cast<std::uint32_t>(uids_.size()) - first);
        ++lists_;
    }

    /// Numbers each element and notes the list. Nested lists use pendingUids_ as a stack meanwhile.
    template <typename Range, typename NumberOf>
    void uidList(std::string_view key, const Range& range, const NumberOf& numberOf) {
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
            &dictionary, isMutable ? "NSMutableDictionary" : "NSDictionary", isMutable ? "NSDictionary" : "", {}, [&] {
                uidList("NS.keys", dictionary, [&](const auto& entry) { return textEntry(*entry.first); });
                uidList("NS.objects", dictionary, [&](const auto& entry) { return number(entry.second); });
            });
    }

    std::uint32_t error(const Error& error) {
        return keyedObject(&error, "NSError", {}, {}, [&] {
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
        const std::uint32_t uid = atomEntry(add({Atom::Kind::Data, kNone, 0, 0, bytes.size(), bytes}));
        shared_.back().second = uid;
        return uid;
    }

    std::uint32_t number(const Value& value) {
        return std::visit(
            [this](const auto& v) -> std::uint32_t {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, std::monostate>) {
                    return keyedObject(nullptr, "NSNull", {}, {}, [] {});
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
                    return keyedObject(nullptr, "NSDate", {}, {}, [&] {
                        item("NS.time", Item::Kind::Atom,
                             scalar(Atom::Kind::Real64, std::bit_cast<std::uint64_t>(v.secondsSinceReference)));
                    });
                } else if constexpr (std::is_same_v<T, Size>) {
                    return keyedObject(nullptr, "NSValue", {}, {}, [&] {
                        constexpr std::uint64_t kSizeKind = 2;
                        item("NS.special", Item::Kind::Atom, scalar(Atom::Kind::Integer, kSizeKind));
                        item("NS.sizeval", Item::Kind::Uid, textEntry(keep(Value(sizeText(v))).stringValue()));
                    });
                } else if constexpr (std::is_same_v<T, Value::ArrayRef>) {
                    return keyedObject(v.get(), "NSArray", {}, {}, [&] {
                        uidList("NS.objects", *v, [&](const Value& element) { return number(element); });
                    });
                } else if constexpr (std::is_same_v<T, Value::DictionaryRef>) {
                    return dictionary(*v);
                } else if constexpr (std::is_same_v<T, Value::ErrorRef>) {
                    return error(*v);
                } else {
                    return keyedObject(v.get(), v->className(), v->superclassName(), {}, [&] {
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
    // The second walk.

    Data write(std::uint32_t rootUid) {
        const std::uint32_t keyVersion = atomOf("$version");
        const std::uint32_t keyObjects = atomOf("$objects");
        const std::uint32_t keyArchiver = atomOf("$archiver");
        const std::uint32_t keyTop = atomOf("$top");
        const std::uint32_t version = scalar(Atom::Kind::Integer, 100000);
        const std::uint32_t archiver = atomOf("NSKeyedArchiver");
        const std::uint32_t keyRoot = atomOf("root");

        // Every entry but "$null" has one UID; the top dictionary, "$objects" and "$top" are the other three.
        const std::uint64_t count = atoms_.size() + (entries_.size() - 1) + (nullUsed_ ? 1 : 0) + objects_ + lists_ + 3;
        if (count >= kNone) {
            cannotArchive("too many objects for one archive");
        }
        referenceSize_ = widthOf(count);
        const std::size_t referenceCount = 2 * (4 + 1) + entries_.size() + 2 * items_.size() + uids_.size();
        const std::size_t bound = 8 + bound_ + count * (kLargestHead + 8) + referenceCount * kLargestReference + 32;

        Data data(bound);
        begin_ = reinterpret_cast<std::uint8_t*>(data.data());
        out_ = begin_;
        offsets_.resize(static_cast<std::size_t>(count));
        places_ = 0;
        uidPlaces_.assign(entries_.size(), kNone);

        std::memcpy(out_, "bplist00", 8);
        out_ += 8;
        place();
        out_ = putHead(out_, 0xD0, 4);
        std::uint8_t* references = reserve(8);
        for (const std::uint32_t key : {keyVersion, keyObjects, keyArchiver, keyTop}) {
            refer(references, atomPlace(key));
        }
        refer(references, atomPlace(version));
        refer(references, objectsPlace());
        refer(references, atomPlace(archiver));
        refer(references, place());
        out_ = putHead(out_, 0xD0, 1);
        references = reserve(2);
        refer(references, atomPlace(keyRoot));
        refer(references, uidPlace(rootUid));

        finish(count);
        data.resize(static_cast<std::size_t>(out_ - begin_));
        return data;
    }

    /// Opens the next stored object here and returns its place.
    std::uint32_t place() {
        offsets_[places_] = static_cast<std::uint64_t>(out_ - begin_);
        return places_++;
    }

    std::uint8_t* reserve(std::size_t references) {
        std::uint8_t* p = out_;
        out_ += references * referenceSize_;
        return p;
    }

    void refer(std::uint8_t*& p, std::uint32_t place) { p = putBigEndian(p, place, referenceSize_); }

    std::uint32_t atomPlace(std::uint32_t id) {
        Atom& atom = atoms_[id];
        if (atom.place == kNone) {
            atom.place = place();
            writeAtom(atom);
        }
        return atom.place;
    }

    void writeAtom(const Atom& atom) {
        switch (atom.kind) {
        case Atom::Kind::Boolean:
            *out_++ = static_cast<std::uint8_t>(0x08 | atom.bits);
            break;
        case Atom::Kind::Integer:
            out_ = putInteger(out_, atom.bits);
            break;
        case Atom::Kind::Real32:
            *out_++ = 0x22;
            out_ = putBigEndian(out_, atom.bits, 4);
            break;
        case Atom::Kind::Real64:
            *out_++ = 0x23;
            out_ = putBigEndian(out_, atom.bits, 8);
            break;
        case Atom::Kind::Data:
        case Atom::Kind::Ascii:
            out_ = putHead(out_, atom.kind == Atom::Kind::Data ? 0x40 : 0x50, atom.bytes.size());
            if (!atom.bytes.empty()) {
                std::memcpy(out_, atom.bytes.data(), atom.bytes.size());
            }
            out_ += atom.bytes.size();
            break;
        case Atom::Kind::Utf16:
            out_ = putHead(out_, 0x60, atom.bits);
            out_ = plist::writeUtf16(atom.bytes, out_);
            break;
        }
    }

    std::uint32_t uidPlace(std::uint32_t uid) {
        if (uidPlaces_[uid] == kNone) {
            uidPlaces_[uid] = place();
            const unsigned width = widthOf(uid);
            *out_++ = static_cast<std::uint8_t>(0x80 | (width - 1));
            out_ = putBigEndian(out_, uid, width);
        }
        return uidPlaces_[uid];
    }

    std::uint32_t objectsPlace() {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xA0, entries_.size());
        std::uint8_t* references = reserve(entries_.size());
        for (const Entry& entry : entries_) {
            refer(references, entry.isAtom ? atomPlace(entry.first) : objectPlace(entry));
        }
        return result;
    }

    std::uint32_t objectPlace(const Entry& entry) {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xD0, entry.count);
        std::uint8_t* references = reserve(std::size_t{2} * entry.count);
        const Item* const first = items_.data() + entry.first;
        for (const Item* item = first; item != first + entry.count; ++item) {
            refer(references, atomPlace(item->key));
        }
        for (const Item* item = first; item != first + entry.count; ++item) {
            switch (item->kind) {
            case Item::Kind::Atom:
                refer(references, atomPlace(item->first));
                break;
            case Item::Kind::Uid:
                refer(references, uidPlace(item->first));
                break;
            case Item::Kind::UidList:
            case Item::Kind::AtomList:
                refer(references, listPlace(*item));
                break;
            }
        }
        return result;
    }

    std::uint32_t listPlace(const Item& item) {
        const std::uint32_t result = place();
        out_ = putHead(out_, 0xA0, item.count);
        std::uint8_t* references = reserve(item.count);
        for (std::uint32_t i = 0; i < item.count; ++i) {
            const std::uint32_t element = uids_[item.first + i];
            refer(references, item.kind == Item::Kind::UidList ? uidPlace(element) : atomPlace(element));
        }
        return result;
    }

    void finish(std::uint64_t count) {
        const auto tableOffset = static_cast<std::uint64_t>(out_ - begin_);
        const unsigned offsetSize = widthOf(tableOffset);
        for (const std::uint64_t offset : offsets_) {
            out_ = putBigEndian(out_, offset, offsetSize);
        }
        std::memset(out_, 0, 6);
        out_ += 6;
        *out_++ = static_cast<std::uint8_t>(offsetSize);
        *out_++ = static_cast<std::uint8_t>(referenceSize_);
        out_ = putBigEndian(out_, count, 8);
        out_ = putBigEndian(out_, 0, 8);
        out_ = putBigEndian(out_, tableOffset, 8);
    }

    std::vector<Atom> atoms_;
    IdTable atomTable_;
    std::vector<Item> items_;
    std::vector<Item> pending_;
    std::vector<std::uint32_t> uids_;
    std::vector<std::uint32_t> pendingUids_;
    std::vector<Entry> entries_;
    std::vector<std::pair<std::string_view, std::uint32_t>> classes_;
    std::vector<std::pair<const void*, std::uint32_t>> shared_;
    IdTable sharedTable_;
    std::vector<Value> kept_;
    std::array<std::uint32_t, 2> booleans_{kNone, kNone};
    std::size_t bound_ = 0;
    std::size_t lists_ = 0;
    std::size_t objects_ = 0;
    int depth_ = 0;
    bool nullUsed_ = false;

    std::uint8_t* begin_ = nullptr;
    std::uint8_t* out_ = nullptr;
    unsigned referenceSize_ = 1;
    std::uint32_t places_ = 0;
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
