#pragma once

#include <cstdint>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// Writes one object graph as a keyed archive in a binary property list.
///
/// References to the same object, and equal strings, share one entry. A value that cannot be archived throws Exception
/// kInvalidArgumentException: text that is not UTF-8, nesting deeper than kMaximumArchiveDepth, or objects that share so
/// much that reading the archive would cost more than KeyedUnarchiver permits, such as two million references to one
/// text.
class KRV_EXPORT KeyedArchiver {
public:
    /// Returns the archive whose root is this object. The graph must not change during the call. Thread-safe.
    [[nodiscard]] static Data archivedData(const Archivable& root);
    [[nodiscard]] static Data archivedData(const Value& root);

    /// Store one keyed value of the object that is being encoded, for encodeWithCoder only. A key must stay valid until
    /// archivedData returns and must not start with "$".
    void encodeBool(std::string_view key, bool value);
    void encodeInt(std::string_view key, std::int64_t value);
    void encodeFloat(std::string_view key, float value);
    void encodeDouble(std::string_view key, double value);
    /// A null value is stored as the null reference.
    void encodeObject(std::string_view key, Value value);

private:
    class Encoder;
    explicit KeyedArchiver(Encoder& encoder)
        : encoder_(encoder) {}
    Encoder& encoder_;
};

}  // namespace krv
