#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Archivable.h>
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

/// Inside a container a string is quoted unless it is one plain word.
std::string quotedUnlessWord(const std::string& text) {
    const bool word = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    });
    if (word) {
        return text;
    }
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        default:
            out += c;
        }
    }
    return out + '"';
}

/// Containers print no deeper than this; hand-made values may be nested without bound.
constexpr int kMaximumDescriptionDepth = 16;

std::string describe(const Value& value, int depth);

std::string element(const Value& value, int depth) {
    return value.kind() == Value::Kind::String ? quotedUnlessWord(value.stringValue()) : describe(value, depth);
}

std::string describe(const Dictionary& dictionary, int depth) {
    if (depth >= kMaximumDescriptionDepth) {
        return "{...}";
    }
    const std::string indent(static_cast<std::size_t>(depth) * 4, ' ');
    std::string out = "{\n";
    for (const auto& [key, value] : dictionary) {
        out += fmt::format("{}    {} = {};\n", indent, quotedUnlessWord(*key), element(value, depth + 1));
    }
    return out + indent + "}";
}

std::string describe(const Array& array, int depth) {
    if (depth >= kMaximumDescriptionDepth) {
        return "(...)";
    }
    const std::string indent(static_cast<std::size_t>(depth) * 4, ' ');
    std::string out = "(\n";
    for (std::size_t i = 0; i < array.size(); ++i) {
        out += fmt::format("{}    {}{}\n", indent, element(array[i], depth + 1), i + 1 < array.size() ? "," : "");
    }
    return out + indent + ")";
}

std::string describe(const Data& data) {
    constexpr std::size_t kShown = 24;
    std::string out = fmt::format("{{length = {}, bytes = 0x", data.size());
    for (std::size_t i = 0; i < std::min(kShown, data.size()); ++i) {
        out += fmt::format("{:02x}", static_cast<unsigned>(data[i]));
    }
    return out + (data.size() > kShown ? " ...}" : "}");
}

std::string describe(const Value& value, int depth) {
    return std::visit(
        [depth](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                return "(null)";
            } else if constexpr (std::is_same_v<T, bool>) {
                return v ? "1" : "0";
            } else if constexpr (std::is_arithmetic_v<T>) {
                return fmt::format("{}", v);
            } else if constexpr (std::is_same_v<T, Value::StringRef>) {
                return *v;
            } else if constexpr (std::is_same_v<T, Value::DataRef>) {
                return describe(*v);
            } else if constexpr (std::is_same_v<T, Date>) {
                return fmt::format("{} s since 2001-01-01 00:00:00 UTC", v.secondsSinceReference);
            } else if constexpr (std::is_same_v<T, Size>) {
                return fmt::format("{{{}, {}}}", v.width, v.height);
            } else if constexpr (std::is_same_v<T, Value::ArrayRef> || std::is_same_v<T, Value::DictionaryRef>) {
                return describe(*v, depth);
            } else {
                return v->description();
            }
        },
        value.storage());
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

Value::Value(StringRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

Value::Value(DataRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

Value::Value(ArrayRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

Value::Value(DictionaryRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

Value::Value(std::shared_ptr<krv::Dictionary> v) noexcept
    : Value(DictionaryRef(std::move(v))) {}

Value::Value(ErrorRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

Value::Value(ObjectRef v) noexcept {
    if (v) {
        storage_ = std::move(v);
    }
}

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
    return describe(*this, 0);
}

std::string Dictionary::description() const {
    return describe(*this, 0);
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
