#include "BatchList.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "TextValues.h"

namespace krvqt {
namespace {

using Json = nlohmann::json;

/// What is wrong with a value, in words that follow "must be"; empty if nothing is.
using Check = std::string (*)(const Json& value);

std::string text(const Json& value) {
    return value.is_string() && !value.get_ref<const std::string&>().empty() ? "" : "a text";
}

std::string yesOrNo(const Json& value) {
    return value.is_boolean() ? "" : "true or false";
}

std::string type(const Json& value) {
    const std::string name = value.is_string() ? value.get<std::string>() : value.dump();
    return (value.is_string() || value.is_number_integer()) && krv::encodingTypeFromName(name)
               ? ""
               : "an encoding type; 'krvqt types' lists them";
}

std::string codec(const Json& value) {
    return value.is_string() && krv::codecFromName(value.get_ref<const std::string&>())
               ? ""
               : "a codec, such as \"h264\" or \"avc1\"";
}

std::string quality(const Json& value) {
    return value.is_number() && value.get<double>() >= 0 && value.get<double>() <= 1 ? "" : "a number from 0 to 1";
}

std::string rate(const Json& value) {
    return value.is_number() && value.get<double>() >= 0 ? "" : "a number that is not negative";
}

std::string time(const Json& value) {
    const bool valid = value.is_string() ? secondsFrom(value.get_ref<const std::string&>()).has_value()
                                         : value.is_number() && value.get<double>() >= 0;
    return valid ? "" : "seconds, such as 90.5, or a time, such as \"0:01:30\"";
}

std::string size(const Json& value) {
    return value.is_string() && sizeFrom(value.get_ref<const std::string&>())
               ? ""
               : "a width and a height in pixels, such as \"640x360\"";
}

std::string count(const Json& value) {
    return value.is_number_integer() && value.get<std::int64_t>() >= 1 && value.get<std::int64_t>() <= 9999
               ? ""
               : "a whole number from 1 to 9999";
}

std::string track(const Json& value) {
    return value.is_number_integer() && value.get<std::int64_t>() >= 0 && value.get<std::int64_t>() <= 9999
               ? ""
               : "the index of a track, from 0";
}

struct Option {
    std::string_view name;
    Check check;
};
constexpr std::array kConvertOptions{
    Option{"type", type},
    Option{"video-codec", codec},
    Option{"video-quality", quality},
    Option{"video-settings", text},
    Option{"fps", rate},
    Option{"audio-codec", codec},
    Option{"audio-quality", quality},
    Option{"audio-settings", text},
    Option{"start", time},
    Option{"end", time},
    Option{"audio-tracks", text},
    Option{"subtitle-tracks", text},
    Option{"burn-in", text},
    Option{"strict", yesOrNo},
};
constexpr std::array kFlattenOptions{
    Option{"start", time},           Option{"end", time},       Option{"audio-tracks", text},
    Option{"subtitle-tracks", text}, Option{"strict", yesOrNo},
};
constexpr std::array kMergeOptions{Option{"shortest", yesOrNo}, Option{"size", size}, Option{"fps", rate}};
constexpr std::array kThumbnailsOptions{Option{"size", size}, Option{"count", count}};
constexpr std::array kTimesOptions{Option{"track", track}};

struct Command {
    std::string_view name;
    std::span<const Option> options;
    bool writes = true;
    bool severalSources = false;
};
const std::array kCommands{
    Command{"convert", kConvertOptions},
    Command{"flatten", kFlattenOptions},
    Command{"mux", {}},
    Command{.name = "merge", .options = kMergeOptions, .severalSources = true},
    Command{"thumbnails", kThumbnailsOptions},
    Command{.name = "info", .options = {}, .writes = false},
    Command{.name = "times", .options = kTimesOptions, .writes = false},
};

/// A job is invalid.
struct BadJob : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads one job. Throws BadJob.
class JobReader {
public:
    JobReader(const Json& json, const std::filesystem::path& folder)
        : json_(json)
        , folder_(folder) {}

    [[nodiscard]] BatchJob read(std::size_t line) const {
        if (!json_.is_object()) {
            throw BadJob("it is not a JSON object");
        }
        const Command& command = commandOf();
        checkOptions(command);
        BatchJob job{.line = line, .command = std::string(command.name)};
        job.description = json_;
        if (command.severalSources) {
            job.sources = sources();
            job.description["sources"] = job.sources;
        } else {
            job.sources = {file("source")};
            job.description["source"] = job.sources.front();
        }
        if (command.writes) {
            job.destination = file("destination");
            job.description["destination"] = job.destination;
            job.force = json_.value("force", false);
        }
        return job;
    }

private:
    [[nodiscard]] const Command& commandOf() const {
        if (!json_.contains("command")) {
            throw BadJob("it has no \"command\"");
        }
        const auto its = std::find_if(kCommands.begin(), kCommands.end(),
                                      [&](const Command& each) { return json_["command"] == each.name; });
        if (its == kCommands.end()) {
            throw BadJob(
                fmt::format("{} is not a command of a batch: convert, flatten, mux, merge, thumbnails, info, times",
                            json_["command"].dump()));
        }
        return *its;
    }

    void checkOptions(const Command& command) const {
        for (const auto& [name, value] : json_.items()) {
            const auto option = std::find_if(command.options.begin(), command.options.end(),
                                             [&key = name](const Option& each) { return each.name == key; });
            if (option == command.options.end() && !belongsToEach(name, command)) {
                throw BadJob(fmt::format("\"{}\" is not an option of {}", name, command.name));
            }
            const std::string wanted = option != command.options.end() ? option->check(value)
                                       : name == "force"               ? yesOrNo(value)
                                                                       : std::string();
            if (!wanted.empty()) {
                throw BadJob(fmt::format("\"{}\" must be {}", name, wanted));
            }
        }
    }

    static bool belongsToEach(std::string_view name, const Command& command) {
        return name == "command" || name == (command.severalSources ? "sources" : "source") ||
               (command.writes && (name == "destination" || name == "force"));
    }

    [[nodiscard]] std::string file(const char* key) const {
        if (!json_.contains(key)) {
            throw BadJob(fmt::format("it has no \"{}\"", key));
        }
        return path(json_[key], key);
    }

    [[nodiscard]] std::string path(const Json& value, const char* key) const {
        if (!text(value).empty()) {
            throw BadJob(fmt::format("\"{}\" must be the name of a file", key));
        }
        return (folder_ / value.get_ref<const std::string&>()).lexically_normal().string();
    }

    [[nodiscard]] std::vector<std::string> sources() const {
        if (!json_.contains("sources") || !json_["sources"].is_array() || json_["sources"].empty()) {
            throw BadJob("\"sources\" must be an array of the names of files");
        }
        std::vector<std::string> files;
        for (const Json& each : json_["sources"]) {
            files.push_back(path(each, "sources"));
        }
        return files;
    }

    const Json& json_;
    const std::filesystem::path& folder_;
};

/// Returns the path without symbolic links, as far as it exists.
std::string realPath(const std::string& path) {
    std::error_code failure;
    const auto real = std::filesystem::weakly_canonical(path, failure);
    return failure ? path : real.string();
}

void checkTogether(BatchList& list) {
    std::map<std::string, std::size_t> writers;
    for (const BatchJob& job : list.jobs) {
        if (job.destination.empty()) {
            continue;
        }
        const auto [first, isFirst] = writers.emplace(realPath(job.destination), job.line);
        if (!isFirst) {
            list.problems.push_back(
                fmt::format("Line {}: {} is written by line {}, too.", job.line, job.destination, first->second));
        }
    }
    for (const BatchJob& job : list.jobs) {
        for (const std::string& source : job.sources) {
            const auto writer = writers.find(realPath(source));
            if (writer != writers.end() && writer->second != job.line) {
                list.problems.push_back(fmt::format("Line {}: {} is written by line {}, and jobs run in any order.",
                                                    job.line, source, writer->second));
            }
        }
    }
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

BatchList parseBatchList(std::string_view text, const std::filesystem::path& folder) {
    BatchList list;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++list.lines;
        if (isBlank(line)) {
            continue;
        }
        const Json json = Json::parse(line, nullptr, false);
        try {
            if (json.is_discarded()) {
                throw BadJob("it is not valid JSON in UTF-8");
            }
            list.jobs.push_back(JobReader(json, folder).read(list.lines));
        } catch (const BadJob& problem) {
            list.problems.push_back(fmt::format("Line {}: {}.", list.lines, problem.what()));
        }
    }
    checkTogether(list);
    return list;
}

}  // namespace krvqt
