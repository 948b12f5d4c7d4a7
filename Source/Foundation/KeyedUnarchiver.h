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

/// The deepest nesting of objects in an archive, for writing and for reading.
inline constexpr int kMaximumArchiveDepth = 64;

class KeyedUnarchiver;

/// One class that a reader may build: its name in archives, and how an object is made from its keyed values.
struct ArchivableClass {
    std::string_view name;
    std::shared_ptr<Archivable> (*initWithCoder)(KeyedUnarchiver& coder);
};

/// Reads one keyed archive straight from the caller's bytes.
///
/// The trust rules: only property-list kinds, the standard container classes and the classes of the given table are
/// built, chosen by "$classname" alone. Each stored object is decoded once and then shared; a reference to an object
/// that is still being decoded is a cycle and is refused; nesting is bounded by kMaximumArchiveDepth; the work done
/// for containers that share their element lists is charged against a budget that is linear in the size of the
/// archive. Counts never reserve memory. Everything that breaks a rule raises Exception kMalformedArchiveException.
class KRV_EXPORT KeyedUnarchiver {
public:
    /// The root object: an Archivable of the table, or any other value that an archive can hold.
    [[nodiscard]] static Value unarchive(std::span<const std::byte> bytes, std::span<const ArchivableClass> classes);

    /// The keyed values of the object being decoded, for initWithCoder only. A missing key and a null give the
    /// default (0, false, null); a value of another kind is refused. A boolean may be stored as 0 or 1, a float with
    /// any width or as an integer. An integer must fit 32 bits, signed or unsigned.
    [[nodiscard]] bool decodeBool(std::string_view key);
    [[nodiscard]] std::int32_t decodeInt32(std::string_view key);
    [[nodiscard]] float decodeFloat(std::string_view key);
    [[nodiscard]] Value decodeObject(std::string_view key);

    /// decodeObject, refused unless it is null or of this kind.
    [[nodiscard]] Value decodeObject(std::string_view key, Value::Kind kind);

private:
    class Decoder;
    explicit KeyedUnarchiver(Decoder& decoder)
        : decoder_(decoder) {}
    Decoder& decoder_;
};

}  // namespace krv
