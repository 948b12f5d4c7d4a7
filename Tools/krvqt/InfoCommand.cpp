#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "FailureText.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"

namespace krvqt {
namespace {

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
            fmt::print("  {:<11} {}\n", name, text);
        }
    };
    const auto date = [&info](std::string_view key) {
        const krv::Value value = info[key];
        return value.date() ? isoTime(*value.date()) : std::string();
    };
    fmt::print("{}\n", info[krv::kMediaMetadataPath].stringValue());
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

/// Writes a second file and renames it, so that an existing poster stays intact until the new one is complete.
bool writePoster(const std::string& file, const krv::Dictionary& info) {
    const auto poster = info[krv::kMediaMetadataPoster].data();
    if (!poster) {
        fmt::print(stderr, "krvqt: Cannot write a poster of {}: it has no video track.\n",
                   info[krv::kMediaMetadataPath].stringValue());
        return false;
    }
    const std::string part = file + ".part";
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(poster->data()), static_cast<std::streamsize>(poster->size()));
    out.close();
    if (out && std::rename(part.c_str(), file.c_str()) == 0) {
        return true;
    }
    fmt::print(stderr, "krvqt: Cannot write {}: {}.\n", file, std::strerror(errno));
    std::remove(part.c_str());
    return false;
}

}  // namespace

ExitStatus showInfo(const InfoOptions& options, const CommonOptions& common) {
    std::vector<std::string> movies = options.movies;
    for (std::string& movie : movies) {
        if (const ExitStatus status = makeAbsolute({&movie}); status != kDone) {
            return status;
        }
    }
    if (options.poster) {
        if (movies.size() > 1) {
            return usage("--poster takes one movie only");
        }
        if (const ExitStatus status = checkDestination(*options.poster, options.force); status != kDone) {
            return status;
        }
    }
    // Both outlast a lost server, so that no movie is described twice.
    std::size_t next = 0;
    ExitStatus status = kDone;
    const auto call = [&](const ServerAccess& access, krv::ErrorOut error) {
        for (; next < movies.size(); ++next) {
            const std::string& movie = movies[next];
            std::shared_ptr<const krv::Error> problem;
            const auto finished =
                runRecord(access, krv::KRVOperationBase::provideMetadataFor(movie), nullptr, &problem);
            if (!finished && !problem) {
                return kCancelled;
            }
            const auto info = finished ? finished->metadata() : nullptr;
            if (movies.size() == 1) {
                *error = problem;
            } else if (problem) {
                // One bad file does not hide the others.
                fmt::print(stderr, "krvqt: {}\n", failureText(*problem));
            }
            if (!info) {
                status = kFailed;
                continue;
            }
            if (common.json) {
                fmt::print("{}\n", jsonOf(*info).dump());
            } else {
                printText(*info);
            }
            if (options.poster && !writePoster(*options.poster, *info)) {
                status = kFailed;
            }
        }
        return status;
    };
    return askQuestion("info", call, common);
}

}  // namespace krvqt
