#include "JSONValue.h"

#include <cstring>
#include <string>
#include <utility>

#include <KRVQTProcessClient/Foundation/Dictionary.h>

#include "Script.h"

namespace krv::test_kit {
namespace {

using json = nlohmann::json;

Value special(const std::string& kind, const json& contents) {
    if (kind == "$size" && contents.is_array() && contents.size() == 2 && contents[0].is_number() &&
        contents[1].is_number()) {
        return Size{contents[0].get<double>(), contents[1].get<double>()};
    }
    if (kind == "$date" && contents.is_number()) {
        return Date{contents.get<double>()};
    }
    if (kind == "$data" && contents.is_string()) {
        const auto& text = contents.get_ref<const std::string&>();
        Data bytes(text.size());
        std::memcpy(bytes.data(), text.data(), text.size());
        return bytes;
    }
    throw ScriptError("{\"" + kind + "\": " + contents.dump() + "} is not a value");
}

Value object(const json& source) {
    if (source.size() == 1 && source.begin().key().starts_with('$')) {
        return special(source.begin().key(), source.begin().value());
    }
    Dictionary entries;
    for (const auto& [key, entry] : source.items()) {
        entries.set(key, valueFromJSON(entry));
    }
    return entries;
}

}  // namespace

Value valueFromJSON(const json& source) {
    switch (source.type()) {
    case json::value_t::boolean:
        return source.get<bool>();
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
        return source.get<std::int64_t>();
    case json::value_t::number_float:
        return source.get<double>();
    case json::value_t::string:
        return source.get<std::string>();
    case json::value_t::object:
        return object(source);
    case json::value_t::array: {
        Array elements;
        for (const json& element : source) {
            elements.push_back(valueFromJSON(element));
        }
        return elements;
    }
    default:
        return nullptr;
    }
}

}  // namespace krv::test_kit
