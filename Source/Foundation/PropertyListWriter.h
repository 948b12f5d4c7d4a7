#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/AtomTable.h>

/// The second walk of the archiver: writes a numbered object graph as a binary property list. Not installed.
namespace krv::plist {

/// One keyed value of a stored object.
struct Item {
    enum class Kind : std::uint8_t { Atom, Uid, UidList, AtomList };
    std::uint32_t key;
    Kind kind;
    /// Atom or UID; for a list the index of its first element.
    std::uint32_t first;
    std::uint32_t count;
};

/// The object with one number in "$objects". A scalar needs no atom, because nothing else refers to it.
struct Entry {
    enum class Kind : std::uint8_t { Atom, Items, Scalar };
    Kind kind;
    /// Scalar: what it is.
    Atom::Kind scalar;
    /// Items: how many.
    std::uint32_t count;
    /// The atom, the first of the items, or the bits of the scalar.
    std::uint64_t value;
};

/// Long contents of an object, which the caller copies to their final place.
struct Splice {
    /// The number of bytes written before them.
    std::size_t place;
    std::string_view bytes;
};

/// The result of the first walk, and working space of the second.
struct Graph {
    Atom* atoms;
    const Item* items;
    const std::uint32_t* uids;
    std::span<const Entry> entries;
    /// The offset of each stored object, by its index in the property list.
    std::uint64_t* offsets;
    /// The index of the UID object for each number, kNone until it is written.
    std::uint32_t* uidIndexes;
    /// Where the second walk notes long contents, in order, instead of writing them. May be null.
    std::vector<Splice>* splices;
};

/// Returns an upper bound of the bytes that writeArchive writes.
[[nodiscard]] std::size_t archiveSizeBound(std::uint64_t storedObjects, std::size_t references,
                                           std::size_t atomByteBound) noexcept;

/// Writes the archive whose root has this number and returns its length, including the splices. storedObjects is the
/// number of objects that the property list will hold, below kNone; graph.offsets has room for as many, and out for
/// archiveSizeBound(), and for long contents unless they are spliced.
std::size_t writeArchive(const Graph& graph, std::uint32_t rootUid, std::uint64_t storedObjects, std::uint8_t* out);

}  // namespace krv::plist
