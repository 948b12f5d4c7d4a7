#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Description.h>
#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {
namespace {

std::int64_t truncated(double v) noexcept {
    if (std::isnan(v)) {
        return 0;
    }
    if (v >= 9223372036854775808.0) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (v < -9223372036854775808.0) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(v);
}

}  // namespace

Value::Value(const char* utf8)
    : Value(utf8 ? StringRef(std::make_shared<const std::string>(utf8)) : StringRef()) {}

Value::Value(std::string_view utf8)
    : storage_(StringRef(std::make_shared<const std::string>(utf8))) {}

Value::Value(std::string utf8)
    : storage_(StringRef(std::make_shared<const std::string>(std::move(utf8)))) {}

Value::Value(krv::Data v)
    : storage_(DataRef(std::make_shared<const krv::Data>(std::move(v)))) {}

Value::Value(krv::Array v)
    : storage_(ArrayRef(std::make_shared<const krv::Array>(std::move(v)))) {}

Value::Value(krv::Dictionary v)
    : storage_(DictionaryRef(std::make_shared<const krv::Dictionary>(std::move(v)))) {}

std::int64_t Value::integerValue() const noexcept {
    switch (kind()) {
    case Kind::Boolean:
        return *std::get_if<bool>(&storage_) ? 1 : 0;
    case Kind::Integer:
        return *std::get_if<std::int64_t>(&storage_);
    case Kind::Float32:
        return truncated(static_cast<double>(*std::get_if<float>(&storage_)));
    case Kind::Float64:
        return truncated(*std::get_if<double>(&storage_));
    default:
        return 0;
    }
}

double Value::doubleValue() const noexcept {
    switch (kind()) {
    case Kind::Float32:
        return static_cast<double>(*std::get_if<float>(&storage_));
    case Kind::Float64:
        return *std::get_if<double>(&storage_);
    default:
        return static_cast<double>(integerValue());
    }
}

bool Value::boolValue() const noexcept {
    switch (kind()) {
    case Kind::Float32:
    case Kind::Float64:
        return doubleValue() != 0.0;
    default:
        return integerValue() != 0;
    }
}

const std::string& Value::stringValue() const noexcept {
    static const std::string empty;
    const auto* p = std::get_if<StringRef>(&storage_);
    return p ? **p : empty;
}

krv::Size Value::sizeValue() const noexcept {
    return get<krv::Size>();
}

std::string Value::description() const {
    return describe(*this);
}

bool operator==(const Value& a, const Value& b) {
    if (a.kind() != b.kind()) {
        return false;
    }
    return std::visit(
        [&b](const auto& x) -> bool {
            using T = std::decay_t<decltype(x)>;
            const T& y = *std::get_if<T>(&b.storage());
            if constexpr (!std::is_same_v<T, Value::ObjectRef> && requires { *x == *y; }) {
                return x == y || *x == *y;
            } else {
                return x == y;
            }
        },
        a.storage());
}

}  // namespace krv
