#include <algorithm>
#include <memory>
#include <string_view>

#include <MediaServer/Media/Audio/AudioTranscoder.h>
#include <MediaServer/Media/Audio/StereoMatrix.h>
#include <MediaServer/Media/Audio/StereoMixTrack.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/StereoMix.h>
#include <MediaServer/Media/Transcode/Pump.h>
#include <MediaServer/Media/Transcode/StreamPlan.h>

namespace krv::media {
namespace {

bool isDefault(const AVStream& stream) {
    return (stream.disposition & AV_DISPOSITION_DEFAULT) != 0;
}

/// Returns the enabled audio streams. The one whose language and title the mix gets comes first.
std::vector<std::size_t> enabledAudio(const Source& source) {
    auto found = usableStreams(source, AVMEDIA_TYPE_AUDIO);
    const auto preferred = [&](std::size_t i) { return isDefault(source.stream(i)); };
    // The demuxer of the mov family reports the "enabled" flag as "default". In other containers the default track is
    // the preferred one among alternatives.
    const bool flagMeansEnabled = std::string_view(source.format().iformat->name).starts_with("mov,");
    if (flagMeansEnabled && std::any_of(found.begin(), found.end(), preferred)) {
        found.erase(std::remove_if(found.begin(), found.end(), [&](auto i) { return !preferred(i); }), found.end());
    }
    std::stable_partition(found.begin(), found.end(), preferred);
    return found;
}

const Codec& mixCodec(const Container& container) {
    const Codec& aac = codecForFourCC(fourCC("mp4a"), AVMEDIA_TYPE_AUDIO);
    return container.holds(aac.id) ? aac : codecForFourCC(container.defaultAudio, AVMEDIA_TYPE_AUDIO);
}

MovieReport run(const StereoMixRequest& request, Progress& progress) {
    const Container& container = containerForPath(request.destinationPath);
    Source source(request.source, request.sourcePath, progress);
    const auto enabled = enabledAudio(source);
    if (enabled.empty()) {
        throw Failure({.cause = FailureCause::NoAudioTrack});
    }
    OutputFile output(request.destination, container, progress);
    Pump pump(source, output, progress);
    const auto others = planAllButAudio(source, container);
    const auto isVideo = [&](const StreamPlan& one) {
        return source.stream(one.index).codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
               one.treatment != StreamPlan::Treatment::Cover;
    };
    for (const StreamPlan& one : others) {
        if (isVideo(one)) {
            pump.addCopy(one);
        }
    }

    const AVStream& first = source.stream(enabled.front());
    const bool isStereoAlready = enabled.size() == 1 && isStereo(first.codecpar->ch_layout);
    const bool copies = isStereoAlready && container.holds(first.codecpar->codec_id);
    const Settings settings;
    if (copies) {
        pump.addCopy({enabled.front(), StreamPlan::Treatment::Copy});
    } else if (isStereoAlready) {
        pump.add(std::make_unique<AudioTranscoder>(source, first,
                                                   AudioTranscoder::Request{mixCodec(container), 0, settings}),
                 enabled);
    } else {
        std::vector<const AVStream*> streams;
        for (const std::size_t index : enabled) {
            streams.push_back(&source.stream(index));
        }
        pump.add(std::make_unique<StereoMixTrack>(source, streams, mixCodec(container)), enabled);
    }
    for (const StreamPlan& one : others) {
        if (!isVideo(one)) {
            pump.addCopy(one);
        }
    }
    pump.run(!copies);
    return {.truncatedAt = {source.truncatedAt()}};
}

}  // namespace

MovieReport mixToStereo(const StereoMixRequest& request, ProgressSink& sink) {
    Progress progress(sink);
    return run(request, progress);
}

}  // namespace krv::media
