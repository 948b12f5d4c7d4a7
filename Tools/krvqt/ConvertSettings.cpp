#include "ConvertSettings.h"

#include <cctype>
#include <vector>

#include <fmt/format.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

#include "Numbers.h"
#include "Spelling.h"
#include "TextValues.h"
#include "Usage.h"

namespace krvqt {
namespace {

krv::VideoConversion::Type typeFrom(const std::string& text) {
    if (const auto type = krv::encodingTypeFromName(text)) {
        return *type;
    }
    std::vector<std::string> names;
    for (const auto& type : krv::VideoConversion::types()) {
        names.emplace_back(type.name);
    }
    auto candidates = names;
    candidates.insert(candidates.end(), {"h264", "x264", "h265", "hevc", "vp9", "av1", "prores", "audio", "original"});
    const std::string meant = didYouMean(text, candidates);
    throw UsageError(fmt::format("unknown encoding type '{}'{} The types are {}", text, meant.empty() ? "." : meant,
                                 fmt::join(names, ", ")));
}

/// Returns the name of a codec if the server has it.
std::string codecFrom(const std::optional<std::string>& text, bool isVideo) {
    if (!text) {
        return {};
    }
    const auto code = krv::codecFromName(*text);
    std::vector<std::string> names;
    for (const krv::CodecName& codec : krv::codecNames()) {
        if (code == krv::codecFromName(codec.code)) {
            return codec.isVideo == isVideo
                       ? *text
                       : throw UsageError(fmt::format("{} is {} codec", codec.title, isVideo ? "an audio" : "a video"));
        }
        if (codec.isVideo == isVideo) {
            names.emplace_back(codec.name);
        }
    }
    const std::string meant = didYouMean(*text, names);
    throw UsageError(fmt::format("unknown {} codec '{}'{} The codecs are {}", isVideo ? "video" : "audio", *text,
                                 meant.empty() ? "." : meant, fmt::join(names, ", ")));
}

std::optional<krv::Seconds> timeFrom(std::string_view option, const std::optional<std::string>& text) {
    if (!text) {
        return std::nullopt;
    }
    if (const auto seconds = secondsFrom(*text)) {
        return krv::Seconds(*seconds);
    }
    throw UsageError(fmt::format("{} takes seconds, such as 90.5, or a time such as 0:01:30, not '{}'", option, *text));
}

/// Sets the options that conversions and flattenings share.
template <typename Wanted>
void select(const ConvertSettings& settings, Wanted& wanted) {
    wanted.start = timeFrom("--start", settings.start);
    wanted.end = timeFrom("--end", settings.end);
    wanted.audioTracks = settings.audioTracks.value_or("");
    wanted.subtitleTracks = settings.subtitleTracks.value_or("");
    wanted.strict = settings.strict;
}

bool any(const ConvertSettings::Track& track) {
    return track.codec || track.quality || track.settings;
}

void addTrack(CLI::App& command, const std::string& which, const std::string& keys, ConvertSettings::Track& track) {
    command
        .add_option("--" + which + "-codec", track.codec,
                    "codec by common name or four-character code; 'krvqt codecs' lists them")
        ->type_name("CODEC");
    addNumber(command, "--" + which + "-quality", track.quality, kQualities,
              "above 0 and at most 1; 0 is the encoder's default")
        ->type_name("Q");
    command
        .add_option("--" + which + "-settings", track.settings,
                    fmt::format("key=value:key=value with the keys {} and options of the encoder", keys))
        ->type_name("SETTINGS");
}

}  // namespace

krv::ConvertOptions ConvertSettings::convertOptions() const {
    krv::ConvertOptions wanted;
    if (type) {
        wanted.type = typeFrom(*type);
    }
    wanted.burnInSubtitleTrack = burnIn.value_or("");
    wanted.video = {.codec = codecFrom(video.codec, true),
                    .quality = video.quality.value_or(0.0F),
                    .fps = fps.value_or(0.0F),
                    .settings = settingsFrom(video.settings.value_or(""))};
    wanted.audio = {.codec = codecFrom(audio.codec, false),
                    .quality = audio.quality.value_or(0.0F),
                    .settings = settingsFrom(audio.settings.value_or(""))};
    select(*this, wanted);
    return wanted;
}

krv::FlattenOptions ConvertSettings::flattenOptions() const {
    if (any(video) || any(audio) || fps || burnIn) {
        throw UsageError("--flatten copies every track and cannot be combined with video or audio options");
    }
    krv::FlattenOptions wanted;
    select(*this, wanted);
    return wanted;
}

std::string ConvertSettings::extension() const {
    const auto wanted = type ? typeFrom(*type) : krv::VideoConversion::H264;
    if (flatten || wanted == krv::VideoConversion::Original) {
        return {};
    }
    switch (wanted) {
    case krv::VideoConversion::ProRes422:
        return "mov";
    case krv::VideoConversion::VP9:
    case krv::VideoConversion::AV1:
        return "webm";
    case krv::VideoConversion::AudioOnly:
        return "m4a";
    default:
        return "mp4";
    }
}

void addSettings(CLI::App& command, ConvertSettings& settings) {
    command
        .add_option("--type", settings.type,
                    "encoding type by name or number, which the other options refine; 'krvqt types' lists them. By "
                    "default H.264, or what suits the destination's extension")
        ->type_name("TYPE");
    command.add_flag("--flatten", settings.flatten, "copy every track, with the index at the start of the file");
    addTrack(command, "video", "width, height, bitrate (such as 2M), preset, pixelFormat,", settings.video);
    addNumber(command, "--fps", settings.fps, kFrameRates, "frames per second; 0 keeps the source's own timing")
        ->type_name("F");
    addTrack(command, "audio", "bitrate (such as 192k), channels, sampleRate,", settings.audio);
    command.add_option("--start", settings.start, "where to begin: seconds or h:mm:ss")->type_name("T");
    command.add_option("--end", settings.end, "where to end, from the start of the movie: seconds or h:mm:ss")
        ->type_name("T");
    command.add_option("--audio-tracks", settings.audioTracks, "audio tracks to keep: indices or languages, as 1,deu")
        ->type_name("LIST");
    command.add_option("--subtitle-tracks", settings.subtitleTracks, "subtitle tracks to keep, in the same form")
        ->type_name("LIST");
    command.add_option("--burn-in", settings.burnIn, "subtitle track to draw into the video: its index or language")
        ->type_name("N|LANG");
    command.add_flag("--strict", settings.strict, "fail before writing anything if a track would be dropped");
}

}  // namespace krvqt
