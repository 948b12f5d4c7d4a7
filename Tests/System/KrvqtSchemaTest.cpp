// The objects that krvqt prints, beside the schema that documents them.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using Json = nlohmann::json;

/// Checks values against the part of JSON Schema that the documentation uses.
class Schema {
public:
    Schema()
        : root_(Json::parse(std::ifstream(KRV_SCHEMA))) {}

    /// Returns what is wrong, empty if nothing is.
    std::string problem(const Json& value, const std::string& definition) const {
        return check(value, root_.at("$defs").at(definition), definition);
    }

private:
    std::string check(const Json& value, const Json& schema, const std::string& where) const {
        if (schema.contains("$ref")) {
            return check(value, root_.at(Json::json_pointer(schema["$ref"].get<std::string>().substr(1))), where);
        }
        if (schema.contains("const") && value != schema["const"]) {
            return fmt::format("{} is {}", where, value.dump());
        }
        if (schema.contains("enum") && !contains(schema["enum"], value)) {
            return fmt::format("{} is {}", where, value.dump());
        }
        if (schema.contains("type") && !hasType(value, schema["type"])) {
            return fmt::format("{} has a wrong type: {}", where, value.dump());
        }
        return value.is_array() ? checkItems(value, schema, where) : checkKeys(value, schema, where);
    }
    std::string checkItems(const Json& value, const Json& schema, const std::string& where) const {
        for (const Json& each : value) {
            if (const std::string wrong = check(each, schema.value("items", Json::object()), where + "[]");
                !wrong.empty()) {
                return wrong;
            }
        }
        return {};
    }
    std::string checkKeys(const Json& value, const Json& schema, const std::string& where) const {
        for (const Json& key : schema.value("required", Json::array())) {
            if (!value.contains(key.get<std::string>())) {
                return fmt::format("{} lacks {}", where, key.dump());
            }
        }
        if (!value.is_object() || !schema.contains("properties")) {
            return {};
        }
        for (const auto& [key, each] : value.items()) {
            if (!schema["properties"].contains(key)) {
                return fmt::format("{} has the undocumented key {}", where, key);
            }
            if (const std::string wrong = check(each, schema["properties"][key], where + "." + key); !wrong.empty()) {
                return wrong;
            }
        }
        return {};
    }
    static bool contains(const Json& list, const Json& value) {
        return std::find(list.begin(), list.end(), value) != list.end();
    }
    static bool hasType(const Json& value, const Json& type) {
        if (type.is_array()) {
            return std::any_of(type.begin(), type.end(), [&](const Json& each) { return hasType(value, each); });
        }
        const auto name = type.get<std::string>();
        return name == "integer"  ? value.is_number_integer()
               : name == "number" ? value.is_number()
                                  : name == value.type_name();
    }

    const Json root_;
};

class KrvqtSchema : public SystemFixture {
protected:
    /// Runs krvqt and expects objects of this kind, one in each line.
    void expect(const std::string& kind, int expectedStatus, const std::vector<std::string>& arguments) const {
        std::vector<std::string> all{"sh", "-c", "exec \"$@\" 2>/dev/null", "sh", KRV_KRVQT, "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        ChildProcess process(all);
        std::istringstream lines(process.readAll());
        EXPECT_EQ(process.wait(), expectedStatus) << arguments.front();
        int count = 0;
        for (std::string line; std::getline(lines, line); ++count) {
            const Json object = Json::parse(line, nullptr, false);
            ASSERT_TRUE(object.is_object()) << line;
            EXPECT_EQ(schema_.problem(object, kind), "") << line;
        }
        EXPECT_GT(count, 0) << arguments.front();
    }

    const Schema schema_;
};

TEST_F(KrvqtSchema, NoticesWhatIsNotDocumented) {
    const Json good{{"operation", "cancel-all"}, {"status", "done"}, {"cancelled", 2}};
    const auto problem = [&](const char* key, const Json& value) {
        Json changed = good;
        changed[key] = value;
        return schema_.problem(changed, "cancel-all");
    };
    EXPECT_EQ(schema_.problem(good, "cancel-all"), "");
    EXPECT_EQ(problem("more", 1), "cancel-all has the undocumented key more");
    EXPECT_EQ(problem("cancelled", "2"), "cancel-all.cancelled has a wrong type: \"2\"");
    EXPECT_EQ(problem("status", "failed"), "cancel-all.status is \"failed\"");
    EXPECT_EQ(schema_.problem({{"operation", "shutdown"}}, "shutdown"), "shutdown lacks \"status\"");
}

TEST_F(KrvqtSchema, DescribesWhatWritesMovies) {
    const std::string everything = media("everything.mkv");
    expect("convert", 0, {"convert", everything, out("a.mp4")});
    expect("convert", 0, {"convert", media("plain.mov"), everything, "--to", out("to")});
    expect("planned", 0, {"convert", everything, out("b.mp4"), "--dry-run"});
    expect("mux", 0, {"mux", media("surround.mov"), out("stereo.mov")});
    expect("merge", 0, {"merge", media("plain.mov"), everything, out("both.mp4")});
    expect("failed", 1, {"merge", media("plain.mov"), media("text.mp4"), out("none.mp4")});
    expect("failed", 1, {"convert", media("text.mp4"), out("none.mp4")});
}

TEST_F(KrvqtSchema, DescribesWhatInspectsMovies) {
    expect("thumbnails", 0, {"thumbnails", media("plain.mov"), out("pictures"), "--count", "2"});
    expect("info", 0, {"info", media("plain.mov"), media("everything.mkv"), media("chapters.mp4"), media("sound.wav")});
    expect("info", 0, {"info", media("plain.mov"), "--poster", out("poster.jpg")});
    expect("failed", 1, {"info", media("text.mp4"), out("none.mov")});
    expect("times", 0, {"times", media("chapters.mp4")});
    expect("failed", 1, {"times", media("text.mp4")});
}

TEST_F(KrvqtSchema, DescribesBatches) {
    std::ofstream list(out("list.jsonl"));
    const auto line = [&list](const Json& job) { list << job.dump() << '\n'; };
    line({{"command", "convert"}, {"source", media("everything.mkv")}, {"destination", out("batch.mp4")}});
    line({{"command", "thumbnails"}, {"source", media("plain.mov")}, {"destination", out("pictures")}, {"count", 2}});
    line({{"command", "info"}, {"source", media("plain.mov")}});
    line({{"command", "times"}, {"source", media("plain.mov")}});
    list.flush();
    expect("batch", 0, {"batch", out("list.jsonl")});
    line({{"command", "info"}, {"source", media("text.mp4")}});
    list.flush();
    expect("batch", 1, {"batch", out("list.jsonl")});
    line({{"command", "nonsense"}});
    list.flush();
    expect("bad-list", 2, {"batch", out("list.jsonl")});
}

TEST_F(KrvqtSchema, DescribesTheServersWork) {
    for (const char* const command : {"status", "activity", "cancel-all", "shutdown"}) {
        expect("failed", 3, {command});
    }
    expect("doctor", 0, {"doctor"});
    for (const char* const command : {"status", "activity", "cancel-all", "shutdown"}) {
        expect(command, 0, {command});
    }
}

TEST_F(KrvqtSchema, DescribesWhatNeedsNoServer) {
    for (const char* const command : {"types", "codecs", "containers"}) {
        expect(command, 0, {command});
    }
    const auto record = KRVOperationBase::provideMetadataFor(media("plain.mov"))->convertToData();
    std::ofstream(out("record"), std::ios::binary)
        .write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
    expect("record", 0, {"record", out("record")});
    expect("failed", 1, {"record", media("plain.mov")});
    expect("usage", 2, {"conver"});
    expect("usage", 2, {"convert", "-", out("a.mp4")});
    EXPECT_THAT(servers(), testing::IsEmpty());
}

}  // namespace
}  // namespace krv::test
