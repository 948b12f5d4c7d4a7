#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

/// The scalars and texts of one archive, each text once. Not installed.
namespace krv::plist {

inline constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
/// Marker, count marker and an eight-byte count.
inline constexpr std::size_t kLargestMarker = 10;
/// Text and data of this length and longer count as long: they may be copied into the archive when the rest is written.
inline constexpr std::size_t kLong = 1024;

/// Throws Exception kInvalidArgumentException.
[[noreturn]] void cannotArchive(std::string why);

/// A scalar or text of the archive.
struct Atom {
    enum class Kind : std::uint8_t { Boolean, Integer, Real32, Real64, Data, Ascii, Utf16 };
    Kind kind;
    /// Whether anything refers to it. Only a known atom can be unused.
    bool used;
    /// Index in the property list, kNone until it is written.
    std::uint32_t index;
    /// Number of a string in "$objects", 0 while it is only a key or a class name.
    std::uint32_t uid;
    std::uint32_t hash;
    /// Scalars: the bits of the value. Text and data: the number of bytes (UTF-16: of units).
    std::uint64_t bits;
    std::string_view bytes;
};

/// Atoms that every archive, or most, contain. Every table contains them under these ids.
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

/// A hash table of ids with open addressing, without removal.
class IdTable {
public:
    void clear() {
        if (used_ > 0) {
            slots_.assign(kSmallest, kNone);
            used_ = 0;
        }
    }
    /// Returns the id for which same(id) holds, or newId after inserting it.
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

template <typename Word>
[[nodiscard]] std::uint64_t load(const char* p) noexcept {
    Word v = 0;
    std::memcpy(&v, p, sizeof v);
    return v;
}

struct TextScan {
    std::uint64_t hash;
    bool ascii;
};

/// Returns an odd number that differs in each process, so that nobody can prepare texts of equal hash.
[[nodiscard]] std::uint64_t hashSeed() noexcept;

/// Hashes the text and checks for bytes above 0x7F in the same pass, eight bytes at a time. seed: hashSeed().
[[nodiscard]] inline TextScan scan(std::string_view text, std::uint64_t seed) noexcept {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    __extension__ using Product = unsigned __int128;
    std::uint64_t hash = text.size() + seed;
    std::uint64_t seen = 0;
    const auto mix = [&](std::uint64_t word) {
        seen |= word;
        const Product product = static_cast<Product>(hash ^ word) * seed;
        hash = static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    };
    const char* p = text.data();
    std::size_t left = text.size();
    for (; left > 16; left -= 8, p += 8) {
        mix(load<std::uint64_t>(p));
    }
    // The rest, as two words that may overlap.
    if (left > 8) {
        mix(load<std::uint64_t>(p));
        mix(load<std::uint64_t>(p + left - 8));
    } else if (left >= 4) {
        mix(load<std::uint32_t>(p) | load<std::uint32_t>(p + left - 4) << 32);
    } else if (left >= 2) {
        mix(load<std::uint16_t>(p) | load<std::uint16_t>(p + left - 2) << 16);
    } else if (left == 1) {
        mix(load<std::uint8_t>(p));
    }
    return {hash, (seen & kHighBits) == 0};
}

/// Gives each text and scalar of an archive an id. Borrows the bytes that it is given.
///
/// The path of a text is inline for speed: an archive of a few hundred bytes interns dozens of texts.
class AtomTable {
public:
    AtomTable();

    /// Removes all atoms except the known ones, which become unused. Keeps the memory.
    void clear();

    /// Marks a text used and returns its id. Throws if the text is not UTF-8.
    std::uint32_t text(std::string_view text) {
        const TextScan scanned = scan(text, seed_);
        const auto hash = static_cast<std::uint32_t>(scanned.hash >> 32);
        const std::uint32_t id = table_.findOrInsert(
            hash, count_,
            [&](std::uint32_t other) { return atoms_[other].hash == hash && atoms_[other].bytes == text; },
            [&](std::uint32_t other) { return atoms_[other].hash; });
        if (id != count_) {
            return use(id);
        }
        if (!scanned.ascii) {
            return addUtf16(text, hash);
        }
        return add({Atom::Kind::Ascii, true, kNone, 0, hash, text.size(), text});
    }
    /// Adds a scalar, without searching for an equal one, and returns its id.
    std::uint32_t scalar(Atom::Kind kind, std::uint64_t bits) { return add({kind, true, kNone, 0, 0, bits, {}}); }
    std::uint32_t data(std::string_view bytes) {
        return add({Atom::Kind::Data, true, kNone, 0, 0, bytes.size(), bytes});
    }
    std::uint32_t boolean(bool value) {
        std::uint32_t& atom = booleans_[value ? 1 : 0];
        if (atom == kNone) {
            atom = scalar(Atom::Kind::Boolean, value ? 1 : 0);
        }
        return atom;
    }
    /// Marks an atom used and returns its id.
    std::uint32_t use(std::uint32_t id) {
        used_ += atoms_[id].used ? 0U : 1U;
        atoms_[id].used = true;
        return id;
    }

    [[nodiscard]] Atom& operator[](std::uint32_t id) noexcept { return atoms_[id]; }
    /// Returns the number of used atoms.
    [[nodiscard]] std::size_t used() const noexcept { return used_; }
    /// Returns an upper bound of the bytes that all atoms need when they are written, without those of longBytes().
    [[nodiscard]] std::size_t byteBound() const noexcept { return bound_; }
    /// Returns the bytes of all long texts and data.
    [[nodiscard]] std::size_t longBytes() const noexcept { return longBytes_; }
    /// Returns the number of elements for which memory is kept.
    [[nodiscard]] std::size_t capacity() const noexcept;

private:
    std::uint32_t add(const Atom& atom) {
        if (count_ == atoms_.size()) {
            atoms_.resize(2 * atoms_.size());
        }
        atoms_[count_] = atom;
        ++used_;
        bound_ += kLargestMarker;
        (atom.bytes.size() < kLong ? bound_ : longBytes_) += atom.bytes.size();
        return count_++;
    }

    std::uint32_t addUtf16(std::string_view text, std::uint32_t hash);

    /// The number of atoms of a small record.
    static constexpr std::size_t kFewAtoms = 128;

    const std::uint64_t seed_ = hashSeed();
    /// The first count_ elements are in use.
    std::vector<Atom> atoms_;
    std::uint32_t count_ = 0;
    IdTable table_;
    std::array<std::uint32_t, 2> booleans_{kNone, kNone};
    std::size_t bound_ = 0;
    std::size_t longBytes_ = 0;
    std::size_t used_ = 0;

    std::vector<Atom> knownAtoms_;
    IdTable knownTable_;
    std::size_t knownBound_ = 0;
};

}  // namespace krv::plist
