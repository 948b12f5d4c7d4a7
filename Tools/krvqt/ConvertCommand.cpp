#include <memory>
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

struct TrackOptions {
    std::optional<std::string> codec;
    std::optional<float> quality;
    std::optional<std::string> settings;
    [[nodiscard]] bool any() const { return codec || quality || settings; }
};

struct ConvertOptions {
    std::string source;
    std::string destination;
    std::optional<std::string> type;
    bool flatten = false;
    bool force = false;
    TrackOptions video;
    std::optional<float> fps;
    TrackOptions audio;
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::optional<std::string> audioTracks;
    std::optional<std::string> subtitleTracks;
    std::optional<std::string> burnIn;
    bool strict = false;
    [[nodiscard]] bool withSettings() const { return video.any() || fps || audio.any(); }
};

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

void addTrackOptions(CLI::App& command, const std::string& which, TrackOptions& options) {
    command.add_option("--" + which + "-codec", options.codec, "four-character code of the codec, such as avc1")
        ->type_name("CODE");
    command.add_option("--" + which + "-quality", options.quality, "above 0 and at most 1; 0 is the encoder's default")
        ->type_name("Q");
    command.add_option("--" + which + "-settings", options.settings, "key=value:key=value for the encoder")
        ->type_name("SETTINGS");
}

}  // namespace

void addConvert(CommandLine& line) {
    const auto options = std::make_shared<ConvertOptions>();
    CLI::App& command = line.add("convert", "convert a movie",
                                 [options](const CommonOptions& common) { return convert(*options, common); });
    command.add_option("source", options->source, "the movie to read")->required()->type_name("SOURCE");
    command.add_option("destination", options->destination, "the file to write; its extension decides the container")
        ->required()
        ->type_name("DESTINATION");
    command
        .add_option("--type", options->type,
                    "encoding type by name or number, which the other options refine; 'krvqt types' lists them")
        ->type_name("NAME|NUMBER");
    command.add_flag("--flatten", options->flatten, "copy every track, with the index at the start of the file");
    addForce(command, options->force);
    command.add_option("--fps", options->fps, "frames per second; 0 keeps the source's own timing")->type_name("F");
    addTrackOptions(command, "video", options->video);
    addTrackOptions(command, "audio", options->audio);
    command.add_option("--start", options->start, "where to begin: seconds or h:mm:ss")->type_name("T");
    command.add_option("--end", options->end, "where to end, from the start of the movie: seconds or h:mm:ss")
        ->type_name("T");
    command.add_option("--audio-tracks", options->audioTracks, "audio tracks to keep: indices or languages, as 1,deu")
        ->type_name("LIST");
    command.add_option("--subtitle-tracks", options->subtitleTracks, "subtitle tracks to keep, in the same form")
        ->type_name("LIST");
    command.add_option("--burn-in", options->burnIn, "subtitle track to draw into the video: its index or language")
        ->type_name("N|LANG");
    command.add_flag("--strict", options->strict, "fail before writing anything if a track would be dropped");
}

}  // namespace krvqt
