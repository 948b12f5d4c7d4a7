#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "Commands.h"
#include "FailureText.h"
#include "FileOperation.h"
#include "Output.h"
#include "OutputNames.h"
#include "Paths.h"
#include "Question.h"
#include "TextValues.h"

namespace krvqt {
namespace {

struct InfoOptions {
    std::vector<std::string> movies;
    std::optional<std::string> poster;
    bool force = false;
};

std::time_t unixTime(krv::Date date) {
    constexpr double kReference = 978307200;  // dates count from the start of 2001
    return static_cast<std::time_t>(date.secondsSinceReference + kReference);
}

std::string isoTime(krv::Date date) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(unixTime(date)));
}

std::string durationText(double seconds) {
    const auto whole = static_cast<long>(seconds);
    return fmt::format("{}:{:02}:{:02}.{:03}", whole / 3600, whole / 60 % 60, whole % 60,
                       static_cast<long>((seconds - static_cast<double>(whole)) * 1000));
}

nlohmann::json jsonOf(const krv::Dictionary& info) {
    nlohmann::json json{{"operation", "info"}, {"status", "done"}};
    for (const auto& [key, value] : info) {
        // "metadataFrameRate" is called "frameRate" here.
        constexpr std::string_view kPrefix = "metadata";
        std::string name = key->starts_with(kPrefix) ? key->substr(kPrefix.size()) : *key;
        name.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(name.front())));
        switch (value.kind()) {
        case krv::Value::Kind::String:
            json[name] = value.stringValue();
            break;
        case krv::Value::Kind::Integer:
            json[name] = value.integerValue();
            break;
        case krv::Value::Kind::Float64:
            json[name] = value.doubleValue();
            break;
        case krv::Value::Kind::Size:
            json[name] = {{"width", value.sizeValue().width}, {"height", value.sizeValue().height}};
            break;
        case krv::Value::Kind::Date:
            json[name] = isoTime(*value.date());
            break;
        case krv::Value::Kind::Data:
            json[name + "Bytes"] = value.data()->size();
            break;
        default:
            break;
        }
    }
    return json;
}

void printText(const krv::Dictionary& info) {
    const auto line = [](std::string_view name, const std::string& text) {
        if (!text.empty()) {
            printOut("  {:<11} {}\n", name, text);
        }
    };
    const auto date = [&info](std::string_view key) {
        const krv::Value value = info[key];
        return value.date() ? isoTime(*value.date()) : std::string();
    };
    printOut("{}\n", info[krv::kMediaMetadataPath].stringValue());
    line("codecs", info[krv::kMediaMetadataCodec].stringValue());
    if (const krv::Value duration = info[krv::kMediaMetadataDuration]; duration.isNumber()) {
        line("duration", durationText(duration.doubleValue()));
    }
    if (const krv::Size size = info[krv::kMediaMetadataDimensions].sizeValue(); size.width > 0) {
        line("dimensions", fmt::format("{:.0f} x {:.0f}", size.width, size.height));
    }
    if (const krv::Value rate = info[krv::kMediaMetadataFrameRate]; rate.isNumber()) {
        line("frame rate", fmt::format("{:.3f}", rate.doubleValue()));
    }
    line("audio", info[krv::kMediaMetadataAudio].stringValue());
    line("size", fmt::format("{} bytes", info[krv::kMediaMetadataSize].integerValue()));
    line("created", date(krv::kMediaMetadataCreation));
    line("modified", date(krv::kMediaMetadataModified));
}

nlohmann::json tracksOf(const krv::MovieInfo& info) {
    auto list = nlohmann::json::array();
    for (const krv::MovieTrack& track : info.tracks) {
        nlohmann::json json{{"index", track.index},       {"kind", track.kind},   {"codec", track.codec},
                            {"language", track.language}, {"title", track.title}, {"default", track.isDefault}};
        if (track.width > 0) {
            json["dimensions"] = {{"width", track.width}, {"height", track.height}};
        }
        if (track.frameRate > 0) {
            json["frameRate"] = track.frameRate;
        }
        if (track.channels > 0) {
            json["channels"] = track.channels;
            json["sampleRate"] = track.sampleRate;
        }
        list.push_back(std::move(json));
    }
    return list;
}

nlohmann::json chaptersOf(const krv::MovieInfo& info) {
    auto list = nlohmann::json::array();
    for (const krv::MovieChapter& chapter : info.chapters) {
        list.push_back({{"start", chapter.start.count()}, {"end", chapter.end.count()}, {"title", chapter.title}});
    }
    return list;
}

/// Writes a second file and renames it, so that an existing poster stays intact until the new one is complete.
bool writePoster(const std::string& file, const krv::MovieInfo& info) {
    if (!info.poster) {
        say("krvqt: Cannot write a poster of {}: it has no video track.\n", info.path.string());
        return false;
    }
    const std::string part = file + ".part";
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(info.poster->data()), static_cast<std::streamsize>(info.poster->size()));
    out.close();
    if (out && std::rename(part.c_str(), file.c_str()) == 0) {
        return true;
    }
    say("krvqt: Cannot write {}: {}.\n", file, std::strerror(errno));
    std::remove(part.c_str());
    return false;
}

bool report(const krv::MovieInfo& info, const InfoOptions& options, const CommonOptions& common) {
    const auto metadata = info.record->metadata();
    const bool written = !options.poster || writePoster(*options.poster, info);
    if (!metadata) {
        return false;
    }
    if (common.json) {
        auto json = jsonOf(*metadata);
        json["tracks"] = tracksOf(info);
        json["tags"] = info.tags;
        json["chapters"] = chaptersOf(info);
        if (options.poster && written) {
            json["posterPath"] = absolutePath(*options.poster);
        }
        printJSON(json);
    } else {
        printText(*metadata);
    }
    if (options.poster && written && !common.quiet) {
        say("krvqt: the poster was written to {}\n", absolutePath(*options.poster));
    }
    return written;
}

/// Throws UsageError if a name cannot be read, or the poster not be written.
void checkNames(const InfoOptions& options) {
    std::for_each(options.movies.begin(), options.movies.end(), checkSource);
    if (!options.poster) {
        return;
    }
    if (options.movies.size() > 1) {
        usage("--poster takes one movie only");
    }
    const std::string extension = lowerCase(std::filesystem::path(*options.poster).extension().string());
    if (!extension.empty() && extension != ".jpg" && extension != ".jpeg") {
        usage(fmt::format("a poster is a JPEG file; give it a name that ends with .jpg, not {}", extension));
    }
    checkDestination({.sources = {absolutePath(options.movies.front())}, .destination = absolutePath(*options.poster)},
                     options.force);
}

ExitStatus showInfo(const InfoOptions& options, const CommonOptions& common) {
    checkNames(options);
    // A few movies ahead, so that the server is never idle, and not all of them, because a poster takes memory.
    constexpr std::size_t kAhead = 16;
    const krv::Media media = krvqt::media(common);
    ProgressDisplay display(common.quiet);
    std::deque<krv::Job<krv::MovieInfo>> jobs;
    auto current = options.movies.begin();
    auto next = current;
    ExitStatus worst = kDone;
    while (next != options.movies.end() || !jobs.empty()) {
        while (next != options.movies.end() && jobs.size() < kAhead) {
            jobs.push_back(media.info({.source = *next++,
                                       .onProgress = [&](const krv::Progress& p) { display.showWaiting(p); },
                                       .control = untilInterrupted()}));
        }
        const auto info = jobs.front().wait();
        jobs.pop_front();
        const std::string movie = absolutePath(*current++);
        if (!info) {
            const ExitStatus status = questionFailed("info", info.error(), common, movie);
            worst = std::max(worst, status);  // one bad file does not hide the others
        } else if (!report(*info, options, common)) {
            worst = std::max(worst, kFailed);
        }
    }
    return worst;
}

}  // namespace

void addInfo(CommandLine& line) {
    const auto options = std::make_shared<InfoOptions>();
    CLI::App& command = line.add("info", "describe movies",
                                 [options](const CommonOptions& common) { return showInfo(*options, common); });
    command.add_option("movies", options->movies, "the movies to read")->required()->type_name("MOVIE...");
    command.add_option("--poster", options->poster, "the JPEG file to write the poster to")->type_name("FILE");
    addForce(command, options->force);
}

}  // namespace krvqt
