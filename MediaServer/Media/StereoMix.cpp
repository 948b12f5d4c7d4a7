#include <algorithm>
#include <iterator>
#include <memory>
#include <string_view>

#include <MediaServer/Media/Audio/AudioTranscoder.h>
#include <MediaServer/Media/Audio/StereoMatrix.h>
#include <MediaServer/Media/Audio/StereoMixTrack.h>
#include <MediaServer/Media/Container/HiddenPackets.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/StereoMix.h>
#include <MediaServer/Media/Transcode/Pump.h>
#include <MediaServer/Media/Transcode/StreamPlan.h>
#include <MediaServer/Media/Video/VideoTranscoder.h>

namespace krv::media {
namespace {

/// Returns the audio streams that are played at the same time. The mix gets the language and title of the first.
std::vector<std::size_t> playedAudio(const Source& source) {
    const auto found = usableStreams(source, AVMEDIA_TYPE_AUDIO);
    std::vector<std::size_t> enabled;
    std::copy_if(found.begin(), found.end(), std::back_inserter(enabled),
                 [&](std::size_t i) { return (source.stream(i).disposition & AV_DISPOSITION_DEFAULT) != 0; });
    // The demuxer of the mov family reports the "enabled" flag as "default". In other containers the tracks are
    // alternatives, such as languages, of which the default one is played.
    if (std::string_view(source.format().iformat->name).starts_with("mov,")) {
        return enabled.empty() ? found : enabled;
    }
    const auto one = defaultOrFirst(source, found);
    return one ? std::vector{*one} : found;
}

const Codec& mixCodec(const Container& container) {
    const Codec& aac = codecForFourCC(fourCC("mp4a"), AVMEDIA_TYPE_AUDIO);
    return container.holds(aac.id) ? aac : codecForFourCC(container.defaultAudio, AVMEDIA_TYPE_AUDIO);
}

MovieReport run(const StereoMixRequest& request, Progress& progress) {
    const Container& container = containerForPath(request.destinationPath);
    Source source(request.source, request.sourcePath, progress);
    const auto played = playedAudio(source);
    if (played.empty()) {
        throw Failure({.cause = FailureCause::NoAudioTrack});
    }
    OutputFile output(request.destination, container, progress);
    Pump pump(source, output, progress);
    const auto others = planAllButAudio(source, container);
    std::vector<StreamPlan> carried = others;
    for (const std::size_t index : played) {
        carried.push_back({index, StreamPlan::Treatment::Encode});
    }
    const Settings settings;
    bool encodes = false;
    const auto isVideo = [&](const StreamPlan& one) {
        return source.stream(one.index).codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
               one.treatment != StreamPlan::Treatment::Cover;
    };
    for (const StreamPlan& one : others) {
        if (one.treatment == StreamPlan::Treatment::Encode) {
            pump.add(std::make_unique<VideoTranscoder>(source, source.stream(one.index),
                                                       VideoTranscoder::Request{*one.codec, 0, 0, settings}),
                     {one.index});
            encodes = true;
        } else if (isVideo(one)) {
            pump.addCopy(one);
        }
    }

    const AVStream& first = source.stream(played.front());
    const bool isStereoAlready = played.size() == 1 && isStereo(first.codecpar->ch_layout);
    const bool copies =
        isStereoAlready && container.holds(first.codecpar->codec_id) && !hiddenPackets(first).betweenEdits;
    if (copies) {
        pump.addCopy({played.front(), StreamPlan::Treatment::Copy});
    } else if (isStereoAlready) {
        pump.add(std::make_unique<AudioTranscoder>(source, first,
                                                   AudioTranscoder::Request{mixCodec(container), 0, settings}),
                 played);
    } else {
        std::vector<const AVStream*> streams;
        for (const std::size_t index : played) {
            streams.push_back(&source.stream(index));
        }
        pump.add(std::make_unique<StereoMixTrack>(source, streams, mixCodec(container)), played);
    }
    for (const StreamPlan& one : others) {
        if (!isVideo(one)) {
            pump.addCopy(one);
        }
    }
    pump.run(encodes || !copies);
    return {.truncatedAt = {source.truncatedAt()},
            .droppedTracks = tracksDroppedBy(carried, source, container, TrackChoice{}, false)};
}

}  // namespace

MovieReport mixToStereo(const StereoMixRequest& request, ProgressSink& sink) {
    Progress progress(sink);
    return run(request, progress);
}

}  // namespace krv::media
