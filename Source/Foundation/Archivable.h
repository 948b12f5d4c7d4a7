#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

class KeyedArchiver;

/// An object with an archive form of its own: it names its classes and writes its fields by key.
///
/// Its reading side is a factory in the class table given to KeyedUnarchiver.
class KRV_EXPORT Archivable {
public:
    virtual ~Archivable();

    /// The class name in archives and descriptions; a string literal.
    [[nodiscard]] virtual std::string_view className() const noexcept = 0;
    /// The name of the class between this one and the root class, or empty when there is none.
    [[nodiscard]] virtual std::string_view superclassName() const noexcept { return {}; }
    /// Writes the fields, in order.
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
    /// What "%@" prints.
    [[nodiscard]] virtual std::string description() const;

protected:
    Archivable() = default;
    Archivable(const Archivable&) = default;
    Archivable& operator=(const Archivable&) = default;
};

}  // namespace krv
