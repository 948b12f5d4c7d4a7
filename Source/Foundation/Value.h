#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

class Archivable;
class Dictionary;
class Error;
class Value;

/// What a value is. Declared before the types that some kinds are named after, because GCC's -Wshadow takes an
/// enumerator for a declaration that hides them.
enum class ValueKind : std::uint8_t {
    Null,
    Boolean,
    Integer,
    Float32,
    Float64,
    String,
    Data,
    Date,
    Size,
    Array,
    Dictionary,
    Error,
    Object
};

/// An ordered list of values.
using Array = std::vector<Value>;

/// Uninterpreted bytes.
using Data = std::vector<std::byte>;

/// A point in time: seconds since 2001-01-01 00:00:00 UTC, any sign, fractions included.
struct Date {
    double secondsSinceReference = 0.0;
    friend bool operator==(Date, Date) = default;
};

/// Width and height, in pixels for images and frames.
struct Size {
    double width = 0.0;
    double height = 0.0;
    friend bool operator==(Size, Size) = default;
};

/// A value of an operation record. The set of kinds is closed, and copying takes constant time.
///
/// Strings, data, arrays, dictionaries, error records and archivable objects are immutable in a value, and copies share
/// them. Numbers keep their kind: a boolean is not the integer 1, and a 32-bit float is not a 64-bit one.
///
/// A value is as thread-safe as a standard container. Several threads may share its contents.
class KRV_EXPORT Value {
public:
    using Kind = ValueKind;
    using StringRef = std::shared_ptr<const std::string>;
    using DataRef = std::shared_ptr<const krv::Data>;
    using ArrayRef = std::shared_ptr<const krv::Array>;
    using DictionaryRef = std::shared_ptr<const krv::Dictionary>;
    using ErrorRef = std::shared_ptr<const krv::Error>;
    using ObjectRef = std::shared_ptr<const Archivable>;
    using Storage = std::variant<std::monostate, bool, std::int64_t, float, double, StringRef, DataRef, krv::Date,
                                 krv::Size, ArrayRef, DictionaryRef, ErrorRef, ObjectRef>;

    /// Creates the null value. The other constructors create it from a null reference. They create the contents in
    /// place, because assigning them to a variant would be slower.
    Value() noexcept = default;
    Value(std::nullptr_t) noexcept {}
    Value(bool v) noexcept
        : storage_(v) {}
    Value(std::int32_t v) noexcept
        : storage_(std::int64_t{v}) {}
    Value(std::uint32_t v) noexcept
        : storage_(std::int64_t{v}) {}
    Value(std::int64_t v) noexcept
        : storage_(v) {}
    Value(long long v) noexcept
        : storage_(std::int64_t{v}) {}
    Value(float v) noexcept
        : storage_(v) {}
    Value(double v) noexcept
        : storage_(v) {}
    Value(const char* utf8);
    Value(std::string_view utf8);
    Value(std::string utf8);
    Value(StringRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    Value(krv::Data v);
    Value(DataRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    Value(krv::Date v) noexcept
        : storage_(v) {}
    Value(krv::Size v) noexcept
        : storage_(v) {}
    Value(krv::Array v);
    Value(ArrayRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    Value(krv::Dictionary v);
    Value(DictionaryRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    Value(std::shared_ptr<krv::Dictionary> v) noexcept
        : storage_(v ? Storage(DictionaryRef(std::move(v))) : Storage()) {}
    Value(ErrorRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    Value(ObjectRef v) noexcept
        : storage_(v ? Storage(std::move(v)) : Storage()) {}
    template <typename T>
    requires std::is_base_of_v<Archivable, T> Value(std::shared_ptr<T> v)
    noexcept
        : Value(ObjectRef(std::move(v))) {}
    /// Any other pointer would convert to a boolean.
    template <typename T>
    Value(T*) = delete;

    [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
    [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::Null; }
    [[nodiscard]] bool isNumber() const noexcept {
        return kind() == Kind::Boolean || kind() == Kind::Integer || kind() == Kind::Float32 || kind() == Kind::Float64;
    }

    /// Converts the number; 0 or false if the value is not a number. Floats are truncated towards zero and limited to
    /// the range of the result; NaN becomes 0.
    [[nodiscard]] std::int64_t integerValue() const noexcept;
    [[nodiscard]] double doubleValue() const noexcept;
    [[nodiscard]] bool boolValue() const noexcept;

    /// Returns the string, or an empty one for any other kind.
    [[nodiscard]] const std::string& stringValue() const noexcept;
    /// Returns the size, or the zero size for any other kind.
    [[nodiscard]] krv::Size sizeValue() const noexcept;

    /// Return the shared contents, or null if the value is of another kind.
    [[nodiscard]] StringRef string() const noexcept { return get<StringRef>(); }
    [[nodiscard]] DataRef data() const noexcept { return get<DataRef>(); }
    [[nodiscard]] ArrayRef array() const noexcept { return get<ArrayRef>(); }
    [[nodiscard]] DictionaryRef dictionary() const noexcept { return get<DictionaryRef>(); }
    [[nodiscard]] ErrorRef error() const noexcept { return get<ErrorRef>(); }
    [[nodiscard]] ObjectRef object() const noexcept { return get<ObjectRef>(); }
    [[nodiscard]] const krv::Date* date() const noexcept { return std::get_if<krv::Date>(&storage_); }

    /// Returns the text for log lines and state descriptions ("%@"); "(null)" for null.
    [[nodiscard]] std::string description() const;

    /// Compares kind and contents, containers element by element.
    friend KRV_EXPORT bool operator==(const Value& a, const Value& b);

    /// For code that handles every kind, such as the archiver.
    [[nodiscard]] const Storage& storage() const noexcept { return storage_; }

private:
    template <typename T>
    [[nodiscard]] T get() const noexcept {
        const T* p = std::get_if<T>(&storage_);
        return p ? *p : T{};
    }

    Storage storage_;
};

}  // namespace krv
