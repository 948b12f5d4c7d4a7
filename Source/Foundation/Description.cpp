#include <algorithm>
#include <iterator>
#include <type_traits>
#include <variant>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Archivable.h>
#include <KRVQTProcessClient/Foundation/Description.h>
#include <KRVQTProcessClient/Foundation/Error.h>

namespace krv {
namespace {

/// Appends a string of a container, quoted unless it is a plain word.
void appendQuotedUnlessWord(std::string& out, const std::string& text) {
    const bool word = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    });
    if (word) {
        out += text;
        return;
    }
    out += '"';
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
    out += '"';
}

std::string describe(const Data& data) {
    constexpr std::size_t kShown = 24;
    std::string out = fmt::format("{{length = {}, bytes = 0x", data.size());
    for (std::size_t i = 0; i < std::min(kShown, data.size()); ++i) {
        out += fmt::format("{:02x}", static_cast<unsigned>(data[i]));
    }
    return out + (data.size() > kShown ? " ...}" : "}");
}

/// Containers are printed down to this depth, because values made by an application may be nested without limit.
constexpr int kMaximumDepth = 16;
/// A container prints no further elements once the whole description is longer than this. Containers may share their
/// elements, so a few hundred bytes can stand for any number of them.
constexpr std::size_t kMaximumLength = 64 << 10;

/// The state of this thread's outermost description. Errors and other objects describe their own contents, which leads
/// back here.
struct Progress {
    int depth = 0;
    std::size_t length = 0;
};
thread_local Progress progress;

/// One more level of the description.
class Level {
public:
    Level() {
        if (progress.depth++ == 0) {
            progress.length = 0;
        }
    }
    ~Level() { --progress.depth; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

    [[nodiscard]] static bool isTooDeep() { return progress.depth > kMaximumDepth; }
};

/// Appends a value. indent: that of the containers in which it is printed.
void append(std::string& out, const Value& value, int indent);

void appendElement(std::string& out, const Value& value, int indent) {
    const std::size_t before = out.size();
    if (value.kind() == Value::Kind::String) {
        appendQuotedUnlessWord(out, value.stringValue());
    } else {
        append(out, value, indent);
    }
    progress.length += out.size() - before;
}

/// Prints the elements between the brackets, each on a line of its own, until the description is too long.
template <typename Container, typename AppendOne>
void appendContainer(std::string& out, const Container& container, std::string_view brackets, int indent,
                     const AppendOne& appendOne) {
    const Level level;
    out += brackets[0];
    if (Level::isTooDeep()) {
        out += "...";
        out += brackets[1];
        return;
    }
    out += '\n';
    const std::string margin(static_cast<std::size_t>(indent) * 4, ' ');
    for (auto each = container.begin(); each != container.end(); ++each) {
        out += margin;
        out += "    ";
        if (progress.length > kMaximumLength) {
            out += "...\n";
            break;
        }
        appendOne(each);
        out += '\n';
        progress.length += margin.size() + sizeof "    ";
    }
    out += margin;
    out += brackets[1];
}

void append(std::string& out, const Dictionary& dictionary, int indent) {
    appendContainer(out, dictionary, "{}", indent, [&](auto entry) {
        appendQuotedUnlessWord(out, *entry->first);
        progress.length += entry->first->size();
        out += " = ";
        appendElement(out, entry->second, indent + 1);
        out += ';';
    });
}

void append(std::string& out, const Array& array, int indent) {
    appendContainer(out, array, "()", indent, [&](auto element) {
        appendElement(out, *element, indent + 1);
        if (element + 1 != array.end()) {
            out += ',';
        }
    });
}

void append(std::string& out, const Value& value, int indent) {
    std::visit(
        [&](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                out += "(null)";
            } else if constexpr (std::is_same_v<T, bool>) {
                out += v ? '1' : '0';
            } else if constexpr (std::is_arithmetic_v<T>) {
                fmt::format_to(std::back_inserter(out), "{}", v);
            } else if constexpr (std::is_same_v<T, Value::StringRef>) {
                out += *v;
            } else if constexpr (std::is_same_v<T, Value::DataRef>) {
                out += describe(*v);
            } else if constexpr (std::is_same_v<T, Date>) {
                fmt::format_to(std::back_inserter(out), "{} s since 2001-01-01 00:00:00 UTC", v.secondsSinceReference);
            } else if constexpr (std::is_same_v<T, Size>) {
                fmt::format_to(std::back_inserter(out), "{{{}, {}}}", v.width, v.height);
            } else if constexpr (std::is_same_v<T, Value::ArrayRef> || std::is_same_v<T, Value::DictionaryRef>) {
                append(out, *v, indent);
            } else {
                const Level level;
                if (Level::isTooDeep()) {
                    out += "<...>";
                } else {
                    out += v->description();
                }
            }
        },
        value.storage());
}

}  // namespace

std::string describe(const Value& value) {
    std::string out;
    append(out, value, 0);
    return out;
}

std::string describe(const Dictionary& dictionary) {
    std::string out;
    append(out, dictionary, 0);
    return out;
}

}  // namespace krv
