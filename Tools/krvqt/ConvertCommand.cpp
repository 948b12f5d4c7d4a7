#include <optional>
#include <string>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

/// Sets a time from the text of an option. Returns false if it is malformed.
bool setTime(std::optional<krv::Seconds>& time, const std::optional<std::string>& text) {
    if (text) {
        const auto seconds = secondsFrom(*text);
        if (!seconds) {
            return false;
        }
        time = krv::Seconds(*seconds);
    }
    return true;
}

/// Sets the options that conversions and flattenings share. Returns false if a time is malformed.
template <typename Wanted>
bool select(const ConvertOptions& options, Wanted& wanted) {
    wanted.source = options.source;
    wanted.destination = options.destination;
    wanted.audioTracks = options.audioTracks.value_or("");
    wanted.subtitleTracks = options.subtitleTracks.value_or("");
    wanted.strict = options.strict;
    return setTime(wanted.start, options.start) && setTime(wanted.end, options.end);
}

ExitStatus badTime() {
    return usage("--start and --end take seconds, such as 90.5, or a time such as 0:01:30");
}

ExitStatus flatten(const FileOperation& operation, const ConvertOptions& options, const CommonOptions& common) {
    if (options.withSettings() || options.burnIn) {
        return usage("--flatten copies every track and cannot be combined with video or audio options");
    }
    krv::FlattenOptions wanted;
    if (!select(options, wanted)) {
        return badTime();
    }
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        wanted.onProgress = std::move(onProgress);
        wanted.control = std::move(control);
        return media.flatten(std::move(wanted));
    };
    return writeMovie(operation, start, common);
}

}  // namespace

ExitStatus convert(const ConvertOptions& options, const CommonOptions& common) {
    const FileOperation operation{.operation = "convert",
                                  .sources = {absolutePath(options.source)},
                                  .destination = absolutePath(options.destination)};
    if (const ExitStatus status = checkDestination(operation.destination, options.force); status != kDone) {
        return status;
    }
    krv::ConvertOptions wanted;
    if (options.type) {
        wanted.type = krv::encodingTypeFromName(*options.type);
        if (!wanted.type) {
            return usage(fmt::format("'{}' is not an encoding type; 'krvqt types' lists them", *options.type));
        }
    }
    if (options.flatten) {
        return flatten(operation, options, common);
    }
    if (!select(options, wanted)) {
        return badTime();
    }
    wanted.burnInSubtitleTrack = options.burnIn.value_or("");
    wanted.video = {.codec = options.video.codec.value_or(""),
                    .quality = options.video.quality.value_or(0.0F),
                    .fps = options.fps.value_or(0.0F),
                    .settings = options.video.settings.value_or("")};
    wanted.audio = {.codec = options.audio.codec.value_or(""),
                    .quality = options.audio.quality.value_or(0.0F),
                    .settings = options.audio.settings.value_or("")};
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        wanted.onProgress = std::move(onProgress);
        wanted.control = std::move(control);
        return media.convert(std::move(wanted));
    };
    return writeMovie(operation, start, common);
}

}  // namespace krvqt
