#include "BatchWork.h"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>
#include <KRVQTProcessClient/Operations/OperationKeys.h>

#include "DroppedTracks.h"
#include "FileOperation.h"
#include "TextValues.h"

namespace krvqt {
namespace {

using Json = nlohmann::json;

std::optional<krv::Seconds> timeIn(const Json& job, const char* key) {
    if (!job.contains(key)) {
        return std::nullopt;
    }
    const Json& value = job[key];
    return krv::Seconds(value.is_string() ? secondsFrom(value.get_ref<const std::string&>()).value()
                                          : value.get<double>());
}

PixelSize sizeIn(const Json& job) {
    return sizeFrom(job.value("size", "0x0")).value();
}

/// Sets what conversions and flattenings share.
template <typename Options>
Options selected(const BatchJob& job) {
    const Json& json = job.description;
    Options options;
    options.source = job.sources.front();
    options.destination = job.destination;
    options.start = timeIn(json, "start");
    options.end = timeIn(json, "end");
    options.audioTracks = json.value("audio-tracks", "");
    options.subtitleTracks = json.value("subtitle-tracks", "");
    options.strict = json.value("strict", false);
    return options;
}

krv::ConvertOptions conversion(const BatchJob& job) {
    const Json& json = job.description;
    auto options = selected<krv::ConvertOptions>(job);
    if (json.contains("type")) {
        const Json& type = json["type"];
        options.type = krv::encodingTypeFromName(type.is_string() ? type.get<std::string>() : type.dump());
    }
    options.video = {.codec = json.value("video-codec", ""),
                     .quality = json.value("video-quality", 0.0),
                     .fps = json.value("fps", 0.0),
                     .settings = settingsFrom(json.value("video-settings", ""))};
    options.audio = {.codec = json.value("audio-codec", ""),
                     .quality = json.value("audio-quality", 0.0),
                     .settings = settingsFrom(json.value("audio-settings", ""))};
    options.burnInSubtitleTrack = json.value("burn-in", "");
    return options;
}

krv::MergeOptions merging(const BatchJob& job) {
    const Json& json = job.description;
    const PixelSize size = sizeIn(json);
    return {.sources = {job.sources.begin(), job.sources.end()},
            .destination = job.destination,
            .useShortestTrack = json.value("shortest", false),
            .fps = json.value("fps", 0.0),
            .width = size.width,
            .height = size.height};
}

krv::ThumbnailOptions picturing(const BatchJob& job) {
    const PixelSize size = sizeIn(job.description);
    krv::ThumbnailOptions options{
        .source = job.sources.front(), .folder = job.destination, .width = size.width, .height = size.height};
    options.count = job.description.value("count", options.count);
    return options;
}

krv::InterestingTimesOptions searching(const BatchJob& job) {
    krv::InterestingTimesOptions options{.source = job.sources.front()};
    if (job.description.contains("track")) {
        options.track = job.description["track"].get<std::int32_t>();
    }
    return options;
}

template <typename Movie>
Json movieDetails(const Movie& movie, const BatchJob& job) {
    Json json{{std::string(krv::kResultDroppedTracks), droppedJSON(movie.droppedTracks, job.sources)}};
    std::error_code failure;
    if (const auto bytes = std::filesystem::file_size(job.destination, failure); !failure) {
        json["bytes"] = bytes;
    }
    return json;
}

Json detailsOf(const krv::Converted& movie, const BatchJob& job) {
    return movieDetails(movie, job);
}

Json detailsOf(const krv::Merged& movie, const BatchJob& job) {
    return movieDetails(movie, job);
}

Json detailsOf(const krv::Thumbnails& made, const BatchJob& /*job*/) {
    Json list = Json::array();
    for (const krv::Thumbnail& each : made.thumbnails) {
        list.push_back({{"path", each.path.string()}, {"time", each.time.count()}});
    }
    return {{"thumbnails", list}};
}

Json detailsOf(const krv::MovieInfo& info, const BatchJob& /*job*/) {
    Json json{{"codecs", info.codecs},
              {"audio", info.audio},
              {"duration", info.duration ? Json(info.duration->count()) : Json()},
              {"width", info.width},
              {"height", info.height},
              {"frameRate", info.frameRate},
              {"size", info.size},
              {"tags", info.tags},
              {"tracks", Json::array()}};
    for (const krv::MovieTrack& track : info.tracks) {
        json["tracks"].push_back({{"index", track.index},
                                  {"kind", track.kind},
                                  {"codec", track.codec},
                                  {"language", track.language},
                                  {"title", track.title}});
    }
    return {{"info", json}};
}

Json detailsOf(const krv::InterestingTimes& times, const BatchJob& /*job*/) {
    Json json;
    json[std::string(krv::kResultInterestingTimeTimescale)] = times.timescale;
    json[std::string(krv::kResultInterestingTimeValues)] = times.values;
    return {{"times", std::move(json)}};
}

/// Keeps a job of any type, and calls onEnd when it has ended.
template <typename T>
std::shared_ptr<void> follow(krv::Job<T> job, const BatchJob& what, std::function<void(BatchOutcome)> onEnd) {
    return std::make_shared<krv::Job<T>>(
        std::move(job).then([what, onEnd = std::move(onEnd)](const krv::Result<T>& result) {
            onEnd(result ? BatchOutcome{.details = detailsOf(*result, what)} : BatchOutcome{.failure = result.error()});
        }));
}

}  // namespace

std::shared_ptr<void> startBatchJob(const krv::Media& media, const BatchJob& job, krv::ProgressCallback onProgress,
                                    std::function<void(BatchOutcome)> onEnd) {
    const auto with = [&](auto options) {
        options.onProgress = std::move(onProgress);
        options.control = untilInterrupted();
        return options;
    };
    if (job.command == "convert") {
        return follow(media.convert(with(conversion(job))), job, std::move(onEnd));
    }
    if (job.command == "flatten") {
        return follow(media.flatten(with(selected<krv::FlattenOptions>(job))), job, std::move(onEnd));
    }
    if (job.command == "mux") {
        return follow(media.mixToStereo(
                          with(krv::MixToStereoOptions{.source = job.sources.front(), .destination = job.destination})),
                      job, std::move(onEnd));
    }
    if (job.command == "merge") {
        return follow(media.merge(with(merging(job))), job, std::move(onEnd));
    }
    if (job.command == "thumbnails") {
        return follow(media.thumbnails(with(picturing(job))), job, std::move(onEnd));
    }
    if (job.command == "info") {
        return follow(media.info(with(krv::InfoOptions{.source = job.sources.front()})), job, std::move(onEnd));
    }
    if (job.command == "times") {
        return follow(media.interestingTimes(with(searching(job))), job, std::move(onEnd));
    }
    throw std::logic_error("a batch has no command " + job.command);
}

}  // namespace krvqt
