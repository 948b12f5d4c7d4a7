#include <algorithm>
#include <type_traits>
#include <variant>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Description.h>
#include <KRVQTProcessClient/Foundation/Error.h>

namespace krv {
namespace {

/// Quotes a string in a container unless it is a plain word.
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

/// Containers are printed down to this depth, because values made by an application may be nested without limit.
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

std::string describe(const Value& value) {
    return describe(value, 0);
}

std::string describe(const Dictionary& dictionary) {
    return describe(dictionary, 0);
}

}  // namespace krv
