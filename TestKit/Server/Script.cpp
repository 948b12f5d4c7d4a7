#include "Script.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "JSONValue.h"

namespace krv::test_kit {
namespace {

using json = nlohmann::json;

template <typename T>
struct Named {
    std::string_view name;
    T value;
};

constexpr std::array kRequests{
    Named<std::int32_t>{"convert", OpEncodeVideo},
    Named<std::int32_t>{"thumbnails", OpCreateThumbnails},
    Named<std::int32_t>{"info", OpProvideMetadata},
    Named<std::int32_t>{"muxTo2ch", OpMuxAudioTo2ch},
    Named<std::int32_t>{"merge", OpMergeSources},
    Named<std::int32_t>{"times", OpGetInterestingTimes},
    Named<std::int32_t>{"count", OpNumberOfOperations},
    Named<std::int32_t>{"ready", OpReadyToProcessRequests},
    Named<std::int32_t>{"register", OpRegisterWithServer},
    Named<std::int32_t>{"unregister", OpUnregisterFromServer},
    Named<std::int32_t>{"amIRegistered", OpAmIRegistered},
    Named<std::int32_t>{"cancel", OpCancelOperation},
    Named<std::int32_t>{"cancelAll", OpCancelAllOperations},
    Named<std::int32_t>{"progress", OpProgressAndCompletion},
    Named<std::int32_t>{"result", OpReturnResult},
    Named<std::int32_t>{"removeResult", OpRemoveReturnResult},
    Named<std::int32_t>{"shutdown", OpShutdownServer},
};
constexpr std::size_t kMediaRequests = 6;

constexpr std::array kBehaviours{
    Named<Behaviour>{"succeed", Behaviour::Succeed}, Named<Behaviour>{"fail", Behaviour::Fail},
    Named<Behaviour>{"die", Behaviour::Die},         Named<Behaviour>{"exit", Behaviour::Exit},
    Named<Behaviour>{"stall", Behaviour::Stall},     Named<Behaviour>{"forget", Behaviour::Forget},
    Named<Behaviour>{"garbage", Behaviour::Garbage}, Named<Behaviour>{"status", Behaviour::Status},
    Named<Behaviour>{"drop", Behaviour::Drop},       Named<Behaviour>{"hang", Behaviour::Hang},
    Named<Behaviour>{"queueFull", Behaviour::Fail},
};

/// Longer times in a script are a mistake.
constexpr std::int64_t kLongest = 3'600'000;
constexpr std::int64_t kMostErrorCode = 10;
constexpr unsigned kLowestStatus = 100;
constexpr unsigned kHighestStatus = 599;

template <typename T, std::size_t N>
T named(const std::array<Named<T>, N>& table, const json& value, std::string_view what) {
    const auto name = value.is_string() ? value.get<std::string>() : value.dump();
    const auto row = std::find_if(table.begin(), table.end(), [&](const auto& each) { return each.name == name; });
    if (row == table.end()) {
        std::string names;
        for (const auto& each : table) {
            names += names.empty() ? "" : ", ";
            names += each.name;
        }
        throw ScriptError(fmt::format("the {} \"{}\" is not one of {}", what, name, names));
    }
    return row->value;
}

std::int64_t integer(const std::string& key, const json& value, std::int64_t least, std::int64_t most) {
    const bool fits = !value.is_number_unsigned() || value.get<std::uint64_t>() <= static_cast<std::uint64_t>(most);
    if (!value.is_number_integer() || !fits || value.get<std::int64_t>() < least || value.get<std::int64_t>() > most) {
        throw ScriptError(fmt::format("\"{}\" is not an integer from {} to {}", key, least, most));
    }
    return value.get<std::int64_t>();
}

double fraction(const std::string& key, const json& value) {
    if (!value.is_number() || value.get<double>() < 0 || value.get<double>() >= 1) {
        throw ScriptError(fmt::format("\"{}\" is not a number from 0 to less than 1", key));
    }
    return value.get<double>();
}

std::string text(const std::string& key, const json& value) {
    if (!value.is_string()) {
        throw ScriptError(fmt::format("\"{}\" is not a string", key));
    }
    return value.get<std::string>();
}

std::chrono::milliseconds time(const std::string& key, const json& value) {
    return std::chrono::milliseconds(integer(key, value, 0, kLongest));
}

/// Calls each with every element of an array, or with the value itself if it is not one.
template <typename Each>
void forEach(const json& value, Each each) {
    if (!value.is_array()) {
        each(value);
        return;
    }
    for (const json& element : value) {
        each(element);
    }
}

Dictionary dictionary(const std::string& key, const json& value) {
    if (!value.is_object()) {
        throw ScriptError(fmt::format("\"{}\" is not an object", key));
    }
    Dictionary entries;
    for (const auto& [name, entry] : value.items()) {
        entries.set(name, valueFromJSON(entry));
    }
    return entries;
}

void readError(Rule& rule, const json& value) {
    if (!value.is_object()) {
        throw ScriptError("\"error\" is not an object");
    }
    for (const auto& [key, entry] : value.items()) {
        if (key == "code") {
            rule.errorCode = integer(key, entry, 1, kMostErrorCode);
        } else if (key == "sentence") {
            rule.sentence = text(key, entry);
        } else if (key == "cause") {
            rule.cause = text(key, entry);
        } else if (key == "file") {
            rule.file = text(key, entry);
        } else {
            throw ScriptError(fmt::format("\"error\" has no key \"{}\"", key));
        }
    }
}

/// Reads the keys that say to which requests the rule applies and what happens. Returns whether the key is one of them.
bool readWhat(Rule& rule, const std::string& key, const json& value) {
    if (key == "operation") {
        forEach(value, [&](const json& each) { rule.types.push_back(named(kRequests, each, "operation")); });
    } else if (key == "nth") {
        forEach(value, [&](const json& each) {
            rule.nth.push_back(static_cast<std::uint32_t>(integer(key, each, 1, kLongest)));
        });
    } else if (key == "do") {
        rule.behaviour = named(kBehaviours, value, "behaviour");
        if (value == "queueFull") {
            rule.errorCode = static_cast<std::int64_t>(OperationErrorCode::CannotAcceptWork);
        }
    } else if (key == "error") {
        readError(rule, value);
    } else if (key == "status") {
        rule.status = static_cast<unsigned>(integer(key, value, kLowestStatus, kHighestStatus));
    } else if (key == "body") {
        rule.body = text(key, value);
    } else {
        return false;
    }
    return true;
}

/// Reads the keys of an operation's course and result. Returns whether the key is one of them.
bool readCourse(Rule& rule, const std::string& key, const json& value) {
    if (key == "at") {
        rule.at = fraction(key, value);
    } else if (key == "progress") {
        rule.progress.clear();
        forEach(value, [&](const json& each) { rule.progress.push_back(fraction(key, each)); });
    } else if (key == "every") {
        rule.every = time(key, value);
    } else if (key == "queue") {
        forEach(value, [&](const json& each) { rule.queue.push_back(integer(key, each, 0, kLongest)); });
    } else if (key == "delay") {
        rule.delay = time(key, value);
    } else if (key == "result") {
        rule.result = dictionary(key, value);
    } else if (key == "arguments") {
        rule.arguments = dictionary(key, value);
    } else if (key == "write") {
        rule.contents = value == false ? std::nullopt : std::optional(text(key, value));
    } else {
        return false;
    }
    return true;
}

/// Returns the number of the gate with that name, which may be a new one.
std::size_t gate(Script& script, const std::string& name) {
    if (const auto known = script.gateNamed(name)) {
        return *known;
    }
    if (name.empty() || name.find('\n') != std::string::npos || script.gates.size() == Script::kMostGates) {
        throw ScriptError(
            fmt::format("\"gate\" is empty, has several lines, or is one of more than {}", Script::kMostGates));
    }
    script.gates.push_back(name);
    return script.gates.size() - 1;
}

void check(const Rule& rule) {
    const auto needs = [](bool given, std::string_view what) {
        if (!given) {
            throw ScriptError(std::string(what));
        }
    };
    if (rule.behaviour == Behaviour::Fail) {
        needs(rule.errorCode != 0, "\"fail\" needs \"error\" with a \"code\"");
    }
    if (rule.behaviour == Behaviour::Status) {
        needs(rule.status != 0, "\"status\" needs the key \"status\"");
    }
    if (rule.behaviour == Behaviour::Succeed) {
        needs(!rule.at, "\"at\" needs a behaviour other than \"succeed\"");
    } else if (rule.behaviour != Behaviour::Stall && rule.behaviour != Behaviour::Forget) {
        needs(rule.at || !rule.gate, "\"gate\" needs \"at\", because the request itself meets the behaviour");
    }
    const bool onlyMedia = std::all_of(rule.types.begin(), rule.types.end(), [](std::int32_t type) {
        return std::any_of(kRequests.begin(), kRequests.begin() + kMediaRequests,
                           [type](const auto& row) { return row.value == type; });
    });
    if (rule.at || rule.gate || rule.behaviour == Behaviour::Stall || rule.behaviour == Behaviour::Forget) {
        needs(onlyMedia, "only media operations have a progress");
    }
}

void readLine(Script& script, std::string_view line) {
    const json value = json::parse(line);
    if (!value.is_object()) {
        throw ScriptError("it is not a JSON object");
    }
    if (value.contains("restart")) {
        if (value.size() > 1) {
            throw ScriptError("\"restart\" needs a line of its own");
        }
        const json& restart = value["restart"];
        script.restart = restart == false ? std::nullopt : std::optional(time("restart", restart));
        return;
    }
    Rule rule;
    rule.contents = "written by krv-fake-server\n";
    for (const auto& [key, entry] : value.items()) {
        if (key == "gate") {
            rule.gate = gate(script, text(key, entry));
        } else if (!readWhat(rule, key, entry) && !readCourse(rule, key, entry)) {
            throw ScriptError(fmt::format("a rule has no key \"{}\"", key));
        }
    }
    check(rule);
    script.rules.push_back(std::move(rule));
}

}  // namespace

bool Rule::applies(std::int32_t type, std::uint32_t number) const {
    const auto media = std::span(kRequests).first<kMediaRequests>();
    const bool hasType =
        types.empty() ? std::any_of(media.begin(), media.end(), [type](const auto& row) { return row.value == type; })
                      : std::find(types.begin(), types.end(), type) != types.end();
    return hasType && (nth.empty() || std::find(nth.begin(), nth.end(), number) != nth.end());
}

Rule Script::ruleFor(std::int32_t type, std::uint32_t number) const {
    const auto rule =
        std::find_if(rules.begin(), rules.end(), [&](const Rule& each) { return each.applies(type, number); });
    if (rule != rules.end()) {
        return *rule;
    }
    Rule usual;
    usual.contents = "written by krv-fake-server\n";
    return usual;
}

std::optional<std::size_t> Script::gateNamed(std::string_view name) const {
    const auto place = std::find(gates.begin(), gates.end(), name);
    return place == gates.end() ? std::nullopt : std::optional(static_cast<std::size_t>(place - gates.begin()));
}

Script parseScript(std::string_view script) {
    Script result;
    std::size_t number = 0;
    for (std::size_t begin = 0; begin < script.size();) {
        const std::size_t end = std::min(script.find('\n', begin), script.size());
        const std::string_view line = script.substr(begin, end - begin);
        const std::size_t first = line.find_first_not_of(" \t\r");
        begin = end + 1;
        ++number;
        if (first == std::string_view::npos || line[first] == '#') {
            continue;
        }
        try {
            readLine(result, line);
        } catch (const json::parse_error& problem) {
            throw ScriptError(fmt::format("line {}, column {}: not a JSON object", number, problem.byte));
        } catch (const ScriptError& problem) {
            throw ScriptError(fmt::format("line {}: {}", number, problem.what()));
        }
    }
    return result;
}

std::string requestName(std::int32_t type) {
    const auto row =
        std::find_if(kRequests.begin(), kRequests.end(), [type](const auto& each) { return each.value == type; });
    return row == kRequests.end() ? std::to_string(type) : std::string(row->name);
}

}  // namespace krv::test_kit
