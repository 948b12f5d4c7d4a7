#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "CodecCode.h"
#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

/// The arguments of the call, checked before any work starts.
struct Request {
    std::string source;
    std::string destination;
    std::int32_t type = krv::VideoConversion::H264;
    bool flatten = false;
    bool withSettings = false;
    std::shared_ptr<krv::VideoEncodingParameters> video;
    std::shared_ptr<krv::AudioEncodingParameters> audio;
};

/// Adds the options that are settings of the record: parts, tracks and strictness. Returns false if a time is
/// malformed.
bool addSelection(const ConvertOptions& options, TrackOptions& video, TrackOptions& audio) {
    const auto add = [](TrackOptions& track, std::string_view key, const std::string& value) {
        const std::string before = track.settings.value_or("");
        track.settings = fmt::format("{}{}{}={}", before, before.empty() ? "" : ":", key, value);
    };
    for (const auto& [key, time] : {std::pair{"trimStart", &options.start}, std::pair{"trimEnd", &options.end}}) {
        if (*time) {
            const auto seconds = secondsFrom(**time);
            if (!seconds) {
                return false;
            }
            add(video, key, fmt::format("{:f}", *seconds));
        }
    }
    if (options.subtitleTracks) {
        add(video, "subtitleTracks", *options.subtitleTracks);
    }
    if (options.burnIn) {
        add(video, "burnInSubtitleTrack", *options.burnIn);
    }
    if (options.audioTracks) {
        add(audio, "audioTracks", *options.audioTracks);
    }
    if (options.strict) {
        add(video, "strict", "1");
    }
    return true;
}

template <typename Parameters>
bool fill(std::shared_ptr<Parameters>& parameters, const TrackOptions& options, std::string_view which) {
    if (!parameters) {
        std::shared_ptr<const krv::Data> blob;
        if (options.settings) {
            const auto* p = reinterpret_cast<const std::byte*>(options.settings->data());
            blob = std::make_shared<const krv::Data>(p, p + options.settings->size());
        }
        parameters = Parameters::encodingParametersWithData(std::move(blob));
    }
    if (options.codec) {
        const auto code = codecCode(*options.codec);
        if (!code) {
            usage(fmt::format("--{}-codec takes a code of up to four characters, such as avc1", which));
            return false;
        }
        parameters->setCodec(*code);
    }
    if (options.quality) {
        parameters->setQuality(*options.quality);
    }
    return true;
}

/// Checks that the type of the options can be refined by their settings. Returns its codecs, or nullopt with the reason
/// printed.
std::optional<TypeCodecs> refinedType(const ConvertOptions& options, std::int32_t type) {
    if (!options.type) {
        return TypeCodecs{0, 0};
    }
    const auto codecs = codecsOfType(type);
    if (!codecs) {
        usage(fmt::format("--type {} takes no video or audio options", *options.type));
        return std::nullopt;
    }
    if (type == krv::VideoConversion::AudioOnly &&
        (!holdsAudioOnly(options.destination) || options.withVideoSettings())) {
        usage("--type \"Audio Only\" takes audio options only, and with them a destination such as .m4a");
        return std::nullopt;
    }
    return codecs;
}

/// Fills in the parameters of both tracks. Codecs that the options do not name are those of the type.
ExitStatus refine(const ConvertOptions& options, const TypeCodecs& type, Request& request) {
    TrackOptions video = options.video;
    TrackOptions audio = options.audio;
    if (!addSelection(options, video, audio)) {
        return usage("--start and --end take seconds, such as 90.5, or a time such as 0:01:30");
    }
    if (video.any() || options.fps || type.video != 0) {
        if (!fill(request.video, video, "video")) {
            return kUsage;
        }
        request.video->setFps(options.fps.value_or(0.0F));
        request.video->setCodec(request.video->codec() != 0 ? request.video->codec() : type.video);
    }
    if (audio.any() || type.audio != 0) {
        if (!fill(request.audio, audio, "audio")) {
            return kUsage;
        }
        request.audio->setCodec(request.audio->codec() != 0 ? request.audio->codec() : type.audio);
    }
    return kDone;
}

ExitStatus prepare(const ConvertOptions& options, Request& request) {
    request.source = options.source;
    request.destination = options.destination;
    if (const ExitStatus status = makeAbsolute({&request.source, &request.destination}); status != kDone) {
        return status;
    }
    if (const ExitStatus status = checkDestination(request.destination, options.force); status != kDone) {
        return status;
    }
    if (options.type) {
        const auto type = encodingType(*options.type);
        if (!type) {
            return usage(fmt::format("'{}' is not an encoding type; 'krvqt types' lists them", *options.type));
        }
        request.type = *type;
    } else {
        request.type = defaultEncodingType(request.destination);
    }
    request.flatten = options.flatten;
    request.withSettings = options.withSettings();
    if (!request.withSettings) {
        return refine(options, {0, 0}, request);
    }
    if (options.flatten) {
        return usage("--flatten copies every track and cannot be combined with video or audio options");
    }
    const auto codecs = refinedType(options, request.type);
    return codecs ? refine(options, *codecs, request) : kUsage;
}

}  // namespace

ExitStatus convert(const ConvertOptions& options, const CommonOptions& common) {
    Request request;
    if (const ExitStatus status = prepare(options, request); status != kDone) {
        return status;
    }
    // The client's calls do not return the result, and none takes both a type and settings.
    const auto call = [&](const ServerAccess& access, const auto& progress, krv::ErrorOut error) {
        const auto record = krv::KRVOperationBase::encodeVideoOperation(request.source, request.destination,
                                                                        request.audio, request.video);
        if (!request.withSettings) {
            record->arguments()->set(krv::kArgumentEncodingType, request.type);
            record->arguments()->set(krv::kArgumentEncodingFlattenOnly, request.flatten);
        }
        return runRecord(access, record, progress, error);
    };
    return makeFile({.operation = "convert", .sources = {request.source}, .destination = request.destination}, call,
                    common);
}

}  // namespace krvqt
