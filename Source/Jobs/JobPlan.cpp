#include <cmath>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Jobs/EncodingNames.h>
#include <KRVQTProcessClient/Jobs/FinishedResult.h>
#include <KRVQTProcessClient/Jobs/JobPlan.h>

namespace krv {
namespace {

namespace fs = std::filesystem;

bool isUTF8(const std::string& text) {
    try {
        (void)KRVOperationBase::provideMetadataFor(text)->convertToData();
        return true;
    } catch (const Exception&) {
        return false;
    }
}

/// Returns the name of a file for a sentence. Bytes of a name that is not UTF-8 are escaped.
std::string nameOf(const fs::path& file) {
    std::string name = file.filename().string();
    if (isUTF8(name)) {
        return name;
    }
    std::string escaped;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        escaped += byte < 0x20 || byte >= 0x7f ? fmt::format("\\x{:02x}", byte) : std::string(1, c);
    }
    return escaped;
}

/// Collects what is wrong with the options of one job. Only the first problem is kept.
class Checks {
public:
    explicit Checks(std::string activity)
        : activity_(std::move(activity)) {}

    void fail(std::string cause, std::string suggestion = {}) {
        if (!failure_) {
            failure_ = Failure(Failure::Kind::BadArgument, {.message = fmt::format("{} is not possible.", activity_),
                                                            .cause = std::move(cause),
                                                            .suggestion = std::move(suggestion)});
        }
    }
    /// Returns the absolute path as it is sent. what: such as "source".
    std::string absolute(const fs::path& path, std::string_view what) {
        std::error_code failure;
        const fs::path whole = path.empty() ? path : fs::absolute(path, failure);
        if (path.empty()) {
            fail(fmt::format("no {} is given", what));
        } else if (failure) {
            fail(fmt::format("the working folder cannot be determined: {}", failure.message()));
        } else if (!isUTF8(whole.string())) {
            fail(fmt::format("the name of the {} is not UTF-8", what), "Rename the file.");
        }
        return whole.string();
    }
    [[nodiscard]] const std::optional<Failure>& failure() const { return failure_; }

private:
    const std::string activity_;
    std::optional<Failure> failure_;
};

std::shared_ptr<const Data> blobOf(const std::string& settings) {
    if (settings.empty()) {
        return nullptr;
    }
    const auto* const bytes = reinterpret_cast<const std::byte*>(settings.data());
    return std::make_shared<const Data>(bytes, bytes + settings.size());
}

/// Adds a setting to a text of settings.
void add(std::string& settings, std::string_view key, std::string_view value) {
    settings += fmt::format("{}{}={}", settings.empty() ? "" : ":", key, value);
}

void addTime(Checks& checks, std::string& settings, std::string_view key, const std::optional<Seconds>& time) {
    if (!time) {
        return;
    }
    if (!std::isfinite(time->count()) || time->count() < 0) {
        checks.fail(fmt::format("{} is not a time within a movie", key));
        return;
    }
    add(settings, key, fmt::format("{:f}", time->count()));
}

void addText(Checks& checks, std::string& settings, std::string_view key, const std::string& value) {
    if (value.find(':') != std::string::npos) {
        checks.fail(fmt::format("{} contains a colon", key));
    } else if (!value.empty()) {
        add(settings, key, value);
    }
}

std::uint32_t codec(Checks& checks, const std::string& name, std::uint32_t ofType) {
    if (name.empty()) {
        return ofType;
    }
    const auto code = codecFromName(name);
    if (!code) {
        checks.fail(fmt::format("\"{}\" is not a codec", name));
    }
    return code.value_or(0);
}

/// The arguments of a conversion.
struct Encoding {
    std::string source;
    std::string destination;
    std::int32_t type = VideoConversion::Custom;
    bool flattenOnly = false;
    /// Whether the settings replace the type.
    bool onlySettings = false;
    std::shared_ptr<const VideoEncodingParameters> video;
    std::shared_ptr<const AudioEncodingParameters> audio;

    [[nodiscard]] KRVOperationBase::Ref record() const {
        auto record = KRVOperationBase::encodeVideoOperation(source, destination, audio, video);
        if (!onlySettings) {
            record->arguments()->set(kArgumentEncodingType, type);
            record->arguments()->set(kArgumentEncodingFlattenOnly, flattenOnly);
        }
        return record;
    }
};

/// Returns the codecs that the options refine, nothing if the type cannot be refined.
TypeCodecs refinedType(Checks& checks, const ConvertOptions& options, VideoConversion::Type type) {
    if (!options.type) {
        return {0, 0};
    }
    const auto codecs = codecsOfType(type);
    const auto name = VideoConversion::nameForType(type);
    if (!codecs) {
        checks.fail(fmt::format("the type \"{}\" takes no video or audio options", name));
    } else if (type == VideoConversion::AudioOnly &&
               (!holdsAudioOnly(options.destination.string()) || options.video != VideoOptions{})) {
        checks.fail(
            fmt::format("the type \"{}\" takes audio options only, and with them a destination such as .m4a", name));
    }
    return codecs.value_or(TypeCodecs{0, 0});
}

Encoding encodingOf(Checks& checks, const ConvertOptions& options) {
    Encoding encoding{.source = checks.absolute(options.source, "source"),
                      .destination = checks.absolute(options.destination, "destination"),
                      .type = options.type.value_or(defaultEncodingType(options.destination.string())),
                      .video = {},
                      .audio = {}};
    const bool withVideo = options.video != VideoOptions{};
    const bool withAudio = options.audio != AudioOptions{};
    encoding.onlySettings = withVideo || withAudio;
    const TypeCodecs codecs = encoding.onlySettings
                                  ? refinedType(checks, options, static_cast<VideoConversion::Type>(encoding.type))
                                  : TypeCodecs{0, 0};

    std::string videoSettings = options.video.settings;
    addTime(checks, videoSettings, "trimStart", options.start);
    addTime(checks, videoSettings, "trimEnd", options.end);
    addText(checks, videoSettings, "subtitleTracks", options.subtitleTracks);
    addText(checks, videoSettings, "burnInSubtitleTrack", options.burnInSubtitleTrack);
    if (options.strict) {
        add(videoSettings, "strict", "1");
    }
    std::string audioSettings = options.audio.settings;
    addText(checks, audioSettings, "audioTracks", options.audioTracks);

    if (withVideo || codecs.video != 0 || !videoSettings.empty()) {
        const auto video = VideoEncodingParameters::encodingParametersWithData(blobOf(videoSettings));
        video->setCodec(codec(checks, options.video.codec, codecs.video));
        video->setQuality(static_cast<float>(options.video.quality));
        video->setFps(static_cast<float>(options.video.fps));
        encoding.video = video;
    }
    if (withAudio || codecs.audio != 0 || !audioSettings.empty()) {
        const auto audio = AudioEncodingParameters::encodingParametersWithData(blobOf(audioSettings));
        audio->setCodec(codec(checks, options.audio.codec, codecs.audio));
        audio->setQuality(static_cast<float>(options.audio.quality));
        encoding.audio = audio;
    }
    return encoding;
}

Result<JobPlan> plan(const Checks& checks, JobPlan plan) {
    if (checks.failure()) {
        return *checks.failure();
    }
    return plan;
}

Result<JobPlan> planOfEncoding(const std::string& verb, const ConvertOptions& options, bool flattenOnly) {
    const std::string activity = fmt::format("{} {}", verb, nameOf(options.source));
    Checks checks(activity);
    Encoding encoding = encodingOf(checks, options);
    encoding.flattenOnly = flattenOnly;
    return plan(checks, {.activity = activity,
                         .source = encoding.source,
                         .makeRecord = [encoding] { return encoding.record(); },
                         .makeResult = converted});
}

void checkPixels(Checks& checks, int width, int height) {
    if (width < 0 || height < 0) {
        checks.fail("width and height must not be negative");
    }
}

}  // namespace

Result<JobPlan> planOf(const ConvertOptions& options) {
    return planOfEncoding("Converting", options, false);
}

Result<JobPlan> planOf(const FlattenOptions& options) {
    ConvertOptions all;
    all.source = options.source;
    all.destination = options.destination;
    all.start = options.start;
    all.end = options.end;
    all.audioTracks = options.audioTracks;
    all.subtitleTracks = options.subtitleTracks;
    all.strict = options.strict;
    return planOfEncoding("Flattening", all, true);
}

Result<JobPlan> planOf(const MixToStereoOptions& options) {
    const std::string activity = fmt::format("Mixing the audio of {} to stereo", nameOf(options.source));
    Checks checks(activity);
    const std::string source = checks.absolute(options.source, "source");
    const std::string destination = checks.absolute(options.destination, "destination");
    return plan(checks, {.activity = activity,
                         .source = source,
                         .makeRecord = [=] { return KRVOperationBase::muxAudioTo2chOperation(source, destination); },
                         .makeResult = converted});
}

Result<JobPlan> planOf(const MergeOptions& options) {
    const std::string activity =
        fmt::format("Merging {} movies to {}", options.sources.size(), nameOf(options.destination));
    Checks checks(activity);
    Array sources;
    for (const fs::path& source : options.sources) {
        sources.emplace_back(checks.absolute(source, "source"));
    }
    if (sources.empty()) {
        checks.fail("no source is given");
    }
    const std::string destination = checks.absolute(options.destination, "destination");
    checkPixels(checks, options.width, options.height);
    const Size size{static_cast<double>(options.width), static_cast<double>(options.height)};
    const auto makeRecord = [=, shortest = options.useShortestTrack, fps = options.fps] {
        auto record = KRVOperationBase::mergeSourcesOperation(sources, destination, shortest);
        if (fps != 0) {
            record->arguments()->set(kArgumentMergeFrameRate, fps);
        }
        if (size != Size{}) {
            record->arguments()->set(kArgumentMergeSize, size);
        }
        return record;
    };
    return plan(checks, {.activity = activity,
                         .source = sources.empty() ? fs::path() : fs::path(sources.front().stringValue()),
                         .makeRecord = makeRecord,
                         .makeResult = merged});
}

Result<JobPlan> planOf(const ThumbnailOptions& options) {
    const std::string activity = fmt::format("Making thumbnails of {}", nameOf(options.source));
    Checks checks(activity);
    const std::string source = checks.absolute(options.source, "source");
    const std::string folder = checks.absolute(options.folder, "folder");
    checkPixels(checks, options.width, options.height);
    const Size size{static_cast<double>(options.width), static_cast<double>(options.height)};
    return plan(checks, {.activity = activity,
                         .source = source,
                         .makeRecord =
                             [=, count = options.count] {
                                 auto record = KRVOperationBase::createThumbnailsForVideo(source, folder, size);
                                 record->arguments()->set(kArgumentThumbnailCount, count);
                                 return record;
                             },
                         .makeResult = thumbnails});
}

Result<JobPlan> planOf(const InfoOptions& options) {
    const std::string activity = fmt::format("Describing {}", nameOf(options.source));
    Checks checks(activity);
    const std::string source = checks.absolute(options.source, "source");
    return plan(checks, {.activity = activity,
                         .source = source,
                         .makeRecord = [source] { return KRVOperationBase::provideMetadataFor(source); },
                         .makeResult = movieInfo,
                         .isShort = true});
}

Result<JobPlan> planOf(const InterestingTimesOptions& options) {
    const std::string activity = fmt::format("Finding interesting times of {}", nameOf(options.source));
    Checks checks(activity);
    const std::string source = checks.absolute(options.source, "source");
    return plan(checks, {.activity = activity,
                         .source = source,
                         .makeRecord =
                             [source, track = options.track] {
                                 return KRVOperationBase::getInterestingTimesOperation(source, track.has_value(),
                                                                                       track.value_or(0));
                             },
                         .makeResult = interestingTimes,
                         .isShort = true});
}

}  // namespace krv
