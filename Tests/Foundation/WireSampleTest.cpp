// Archives of another writer, each with a listing of its contents.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

std::string contents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::shared_ptr<const Data> dataOf(const std::string& text) {
    const auto* p = reinterpret_cast<const std::byte*>(text.data());
    return std::make_shared<const Data>(p, p + text.size());
}

/// Quotes text as the listings do: characters above ASCII become UTF-16 escapes.
std::string quoted(const std::string& utf8) {
    std::string out = "\"";
    for (std::size_t i = 0; i < utf8.size();) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        const int size = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        std::uint32_t scalar = size == 1 ? c : c & (0xFFU >> (size + 1));
        for (int k = 1; k < size; ++k) {
            scalar = scalar << 6 | (static_cast<unsigned char>(utf8[i + static_cast<std::size_t>(k)]) & 0x3FU);
        }
        i += static_cast<std::size_t>(size);
        if (scalar < 0x80) {
            out += static_cast<char>(scalar);
        } else if (scalar < 0x10000) {
            out += fmt::format("\\u{:04x}", scalar);
        } else {
            out += fmt::format("\\u{:04x}\\u{:04x}", 0xD800 + ((scalar - 0x10000) >> 10),
                               0xDC00 + ((scalar - 0x10000) & 0x3FF));
        }
    }
    return out + '"';
}

std::string bytesText(const Data& data) {
    if (data.size() <= 64) {
        std::string hex;
        for (const std::byte b : data) {
            hex += fmt::format("{:02x}", static_cast<unsigned>(b));
        }
        return hex;
    }
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const std::byte b : data) {
        hash = (hash ^ static_cast<std::uint64_t>(b)) * 0x100000001b3U;
    }
    return fmt::format("fnv1a64:{:016x}", hash);
}

class Listing {
public:
    static std::vector<std::string> of(const KRVOperationBase& r) {
        Listing l;
        l.line("root", "KRVOperationBase");
        l.value("root.arguments", Value(r.arguments()));
        l.value("root.cancelled", Value(r.cancelled()));
        l.value("root.completed", Value(r.completed()));
        l.value("root.error", Value(r.error()));
        l.value("root.isClientRegistered", Value(r.isClientRegistered()));
        l.line("root.opType", fmt::format("int32:{}", r.operationType()));
        l.line("root.progress", fmt::format("float:{:.17g}", r.progress()));
        l.value("root.result", Value(r.result()));
        const TestOpInfo& t = *r.testInfo();
        l.value("root.testInfo.shouldComplete", Value(t.shouldComplete != 0));
        l.value("root.testInfo.shouldCrash", Value(t.shouldCrash != 0));
        l.value("root.testInfo.shouldError", Value(t.shouldError != 0));
        l.value("root.testInfo.shouldThrow", Value(t.shouldThrow != 0));
        l.line("root.testInfo.timeToLive", fmt::format("int64:{}", t.timeToLive));
        l.value("root.uniqueID", r.uniqueID() ? Value(*r.uniqueID()) : Value());
        std::sort(l.lines_.begin(), l.lines_.end());
        return l.lines_;
    }

private:
    void line(const std::string& path, const std::string& text) { lines_.push_back(path + " = " + text); }

    void value(const std::string& path, const Value& v) {
        switch (v.kind()) {
        case Value::Kind::Null:
            return line(path, "nil");
        case Value::Kind::Boolean:
            return line(path, v.boolValue() ? "bool:true" : "bool:false");
        case Value::Kind::Integer:
            return line(path, fmt::format("int:{}", v.integerValue()));
        case Value::Kind::Float32:
            return line(path, fmt::format("real32:{:.17g}", v.doubleValue()));
        case Value::Kind::Float64:
            return line(path, fmt::format("real64:{}", v.doubleValue()));
        case Value::Kind::String:
            return line(path, "string:" + quoted(v.stringValue()));
        case Value::Kind::Data:
            return line(path, fmt::format("data[{}]:{}", v.data()->size(), bytesText(*v.data())));
        case Value::Kind::Date:
            return line(path, fmt::format("date:{}", v.date()->secondsSinceReference));
        case Value::Kind::Size:
            return line(path, fmt::format("size:{{{}, {}}}", v.sizeValue().width, v.sizeValue().height));
        case Value::Kind::Array:
            line(path, fmt::format("array[{}]", v.array()->size()));
            for (std::size_t i = 0; i < v.array()->size(); ++i) {
                value(fmt::format("{}[{}]", path, i), (*v.array())[i]);
            }
            return;
        case Value::Kind::Dictionary: {
            const auto d = v.dictionary();
            const bool isMutable = d->mutability() == Dictionary::Mutability::Mutable;
            line(path, fmt::format("{}[{}]", isMutable ? "mdict" : "dict", d->size()));
            for (const auto& [key, each] : *d) {
                value(fmt::format("{}{{{}}}", path, quoted(*key)), each);
            }
            return;
        }
        case Value::Kind::Error:
            line(path, "error");
            line(path + ".code", fmt::format("int:{}", v.error()->code()));
            line(path + ".domain", "string:" + quoted(v.error()->domain()));
            return value(path + ".userInfo", Value(v.error()->userInfo()));
        case Value::Kind::Object: {
            line(path, std::string(v.object()->className()));
            const auto& p = dynamic_cast<const EncodingParameters&>(*v.object());
            line(path + ".codec", fmt::format("uint32:{}", p.codec()));
            line(path + ".quality", fmt::format("float:{:.17g}", p.quality()));
            value(path + ".settingsBlob", Value(p.settingsBlob()));
            if (const auto* video = dynamic_cast<const VideoEncodingParameters*>(&p)) {
                line(path + ".fps", fmt::format("float:{:.17g}", video->fps()));
            }
            return;
        }
        }
    }

    std::vector<std::string> lines_;
};

/// Lists an archive with an independent property-list reader: references resolved, dictionaries in key order.
class ExpandedArchive {
public:
    static std::string of(const std::string& bytes) {
        plist_t top = nullptr;
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &top);
        if (!top) {
            return "unreadable";
        }
        const ExpandedArchive archive(plist_dict_get_item(top, "$objects"));
        const std::string text =
            fmt::format("version {} archiver {} root {}", archive.expand(plist_dict_get_item(top, "$version")),
                        archive.expand(plist_dict_get_item(top, "$archiver")),
                        archive.expand(plist_dict_get_item(plist_dict_get_item(top, "$top"), "root")));
        plist_free(top);
        return text;
    }

private:
    explicit ExpandedArchive(plist_t objects)
        : objects_(objects) {}

    std::string expand(plist_t node) const {
        switch (plist_get_node_type(node)) {
        case PLIST_UID: {
            std::uint64_t uid = 0;
            plist_get_uid_val(node, &uid);
            return "@" + expand(plist_array_get_item(objects_, static_cast<std::uint32_t>(uid)));
        }
        case PLIST_DICT: {
            std::vector<std::string> entries;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!value) {
                    break;
                }
                entries.push_back(std::string(key) + "=" + expand(value));
                free(key);
            }
            free(it);
            std::sort(entries.begin(), entries.end());
            std::string text;
            for (const auto& e : entries) {
                text += e + ";";
            }
            return "{" + paired(node, text) + "}";
        }
        case PLIST_ARRAY: {
            std::string text = "[";
            for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) {
                text += expand(plist_array_get_item(node, i)) + ",";
            }
            return text + "]";
        }
        default: {
            char* xml = nullptr;
            std::uint32_t size = 0;
            plist_t copy = plist_copy(node);
            plist_to_xml(copy, &xml, &size);
            plist_free(copy);
            std::string text(xml, size);
            free(xml);
            text.erase(0, text.find("<plist"));
            return text;
        }
        }
    }

    /// An archived dictionary stores keys and values separately and in any order, so the pairs are sorted here.
    std::string paired(plist_t node, const std::string& plain) const {
        plist_t keys = plist_dict_get_item(node, "NS.keys");
        plist_t values = plist_dict_get_item(node, "NS.objects");
        if (!keys || !values) {
            return plain;
        }
        std::vector<std::string> pairs;
        for (std::uint32_t i = 0; i < plist_array_get_size(keys); ++i) {
            pairs.push_back(expand(plist_array_get_item(keys, i)) + "->" + expand(plist_array_get_item(values, i)));
        }
        std::sort(pairs.begin(), pairs.end());
        std::string text = "class " + expand(plist_dict_get_item(node, "$class"));
        for (const auto& p : pairs) {
            text += "(" + p + ")";
        }
        return text;
    }

    plist_t objects_;
};

class WireSample : public testing::TestWithParam<const char*> {
protected:
    std::filesystem::path path(const char* ending) const {
        return std::filesystem::path(KRV_WIRE_SAMPLES) / (std::string(GetParam()) + ending);
    }
};

TEST_P(WireSample, IsReadAsItsListing) {
    const auto record = KRVOperationBase::operationFromData(dataOf(contents(path(".bin"))));
    ASSERT_TRUE(record);
    std::vector<std::string> expected;
    std::istringstream in(contents(path(".txt")));
    for (std::string line; std::getline(in, line);) {
        // The listing does not distinguish the two kinds of array.
        expected.push_back(std::regex_replace(line, std::regex("= marray"), "= array"));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Listing::of(*record), expected);
}

TEST_P(WireSample, IsWrittenBackWithTheSameContentsForAnIndependentReader) {
    const std::string original = contents(path(".bin"));
    const auto record = KRVOperationBase::operationFromData(dataOf(original));
    ASSERT_TRUE(record);
    // The samples contain an immutable result, which reading makes mutable.
    const auto result = record->result();
    record->setResult(std::make_shared<Dictionary>(
        Dictionary::fromEntries({result->begin(), result->end()}, Dictionary::Mutability::Immutable)));
    const Data written = record->convertToData();
    const std::string ours(reinterpret_cast<const char*>(written.data()), written.size());
    EXPECT_LE(ours.size(), original.size());
    // Arrays are written as the immutable kind; one sample contains a mutable one.
    const std::regex mutableArray("\\[<plist version=\"1.0\">\n<string>NSMutableArray</string>\n</plist>\n,");
    std::string expected = std::regex_replace(ExpandedArchive::of(original), mutableArray, "[");
    expected = std::regex_replace(expected, std::regex("NSMutableArray"), "NSArray");
    EXPECT_EQ(ExpandedArchive::of(ours), expected);
}

INSTANTIATE_TEST_SUITE_P(All, WireSample,
                         testing::Values("error_underlying", "op06_both", "op07_thumbs", "op10_merge",
                                         "op11_times_track", "reply_metadata", "reply_times", "unicode_paths"),
                         [](const auto& sample) { return std::string(sample.param); });

}  // namespace
}  // namespace krv
