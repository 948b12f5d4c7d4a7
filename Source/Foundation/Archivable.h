#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

class KeyedArchiver;

/// An object that can be archived: it names its classes and writes its fields by key.
///
/// The class table given to KeyedUnarchiver contains the factory that reads it.
class KRV_EXPORT Archivable {
public:
    virtual ~Archivable();

    /// Returns the class name in archives and descriptions, a string literal.
    [[nodiscard]] virtual std::string_view className() const noexcept = 0;
    /// Returns the name of the class between this one and the root class, empty if there is none.
    [[nodiscard]] virtual std::string_view superclassName() const noexcept { return {}; }
    /// Writes the fields, in order.
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
    /// Returns the text for log lines ("%@").
    [[nodiscard]] virtual std::string description() const;

protected:
    Archivable() = default;
    Archivable(const Archivable&) = default;
    Archivable& operator=(const Archivable&) = default;
};

}  // namespace krv
