#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// The deepest permitted nesting of objects in an archive, for writing and reading.
inline constexpr int kMaximumArchiveDepth = 64;

class KeyedUnarchiver;

/// A class that a reader may build: its name in archives, and the factory that reads an object's keyed values.
struct ArchivableClass {
    std::string_view name;
    /// How many fields an object of the class is archived with, "$class" included.
    std::uint64_t fields;
    std::shared_ptr<Archivable> (*initWithCoder)(KeyedUnarchiver& coder);
};

/// Reads one keyed archive directly from the caller's bytes.
///
/// The archive is not trusted:
///   - Only property-list kinds, the standard container classes and the classes of the given table are built, selected
///     by "$classname" alone.
///   - Each stored object is decoded once and then shared. A reference to an object that is still being decoded is a
///     cycle and is refused.
///   - Nesting is limited to kMaximumArchiveDepth, along every path through the decoded objects, including shared ones.
///     So whatever is decoded can be archived again, and is destroyed with bounded recursion.
///   - Memory and work are limited. Whatever objects share (lists of elements, overlapping texts, a dictionary of which
///     each gets a copy) is charged for each of them. An archive of up to 16 MiB is decoded or refused within 64 MiB,
///     and within 64 times its size if it is small; a longer one within four times its size.
///   - Counts never reserve memory.
///   - Stored objects are checked when something refers to them. A defect in any other object goes unnoticed, because
///     it is never read.
/// A violation throws Exception kMalformedArchiveException.
class KRV_EXPORT KeyedUnarchiver {
public:
    /// Returns the root object: an Archivable of the table, or any other value that an archive can contain.
    [[nodiscard]] static Value unarchive(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes);

    /// Return one keyed value of the object that is being decoded, for initWithCoder only. A missing key and a null
    /// give the default (0, false, null). A value of another kind is refused. A boolean may be stored as 0 or 1, a
    /// float in any width or as an integer. An integer must fit in 32 bits, signed or unsigned.
    [[nodiscard]] bool decodeBool(std::string_view key);
    [[nodiscard]] std::int32_t decodeInt32(std::string_view key);
    [[nodiscard]] float decodeFloat(std::string_view key);
    [[nodiscard]] Value decodeObject(std::string_view key);

    /// The same, but returns a mutable copy of the dictionary, and an empty dictionary by default. It must not be changed
    /// before unarchive returns.
    [[nodiscard]] std::shared_ptr<Dictionary> decodeMutableDictionary(std::string_view key);

    /// The same, but refuses a value that is neither null nor of this kind.
    [[nodiscard]] Value decodeObject(std::string_view key, Value::Kind kind);

private:
    class Decoder;
    explicit KeyedUnarchiver(Decoder& decoder)
        : decoder_(decoder) {}
    Decoder& decoder_;
};

}  // namespace krv
