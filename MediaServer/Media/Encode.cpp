#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Audio/AudioTranscoder.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/DroppedTracks.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Encode.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/Subtitles/BurnIn.h>
#include <MediaServer/Media/Transcode/EncodingType.h>
#include <MediaServer/Media/Transcode/Pump.h>
#include <MediaServer/Media/Transcode/StreamPlan.h>
#include <MediaServer/Media/Video/GIFPalette.h>
#include <MediaServer/Media/Video/VideoTranscoder.h>

namespace krv::media {
namespace {

constexpr float kSlowest = 0.01F;
constexpr float kFastest = 1000;

/// Where the phase in which a palette is chosen ends.
constexpr double kPaletteMade = 0.2;

using Time = std::optional<std::int64_t>;

/// Returns a time that may be in the settings for video, for audio or for both.
Time agreed(const char* key, const Time& video, const Time& audio) {
    if (video && audio && *video != *audio) {
        throw Failure({.cause = FailureCause::UnsupportedSetting,
                       .subject = key,
                       .detail = "is not the same for video and audio"});
    }
    return video ? video : audio;
}

std::optional<Part> requestedPart(const Settings& video, const Settings& audio) {
    const Time start = agreed("trimStart", video.trimStart, audio.trimStart);
    const Time end = agreed("trimEnd", video.trimEnd, audio.trimEnd);
    if (!start && !end) {
        return std::nullopt;
    }
    const Part part{start.value_or(0), end.value_or(Part::kEnd)};
    if (part.length() <= 0) {
        throw Failure(
            {.cause = FailureCause::UnsupportedSetting, .subject = "trimEnd", .detail = "is not after the start"});
    }
    return part;
}

class Encoding {
public:
    Encoding(const EncodeRequest& request, ProgressSink& sink)
        : request_(request)
        , progress_(sink)
        , container_(containerForPath(request.destinationPath))
        , type_(encodingTypeNumbered(request.encodingType)) {
        // Check the whole request before reading any file.
        if (request.video) {
            checkRange("quality", request.video->quality, 0, 1);
            checkRange("frame rate", request.video->fps, kSlowest, kFastest);
            videoSettings_ = parseSettings(request.video->settings, AVMEDIA_TYPE_VIDEO);
            if (request.video->codec != 0) {
                (void)codecForFourCC(request.video->codec, AVMEDIA_TYPE_VIDEO);
            }
        }
        if (request.audio) {
            checkRange("quality", request.audio->quality, 0, 1);
            audioSettings_ = parseSettings(request.audio->settings, AVMEDIA_TYPE_AUDIO);
            if (request.audio->codec != 0) {
                (void)codecForFourCC(request.audio->codec, AVMEDIA_TYPE_AUDIO);
            }
        }
        part_ = requestedPart(videoSettings_, audioSettings_);
    }

    MovieReport run() {
        Source source(request_.source, request_.sourcePath, progress_);
        const TrackChoice choice = chooseTracks(source, videoSettings_, audioSettings_);
        if (part_) {
            source.restrictTo(*part_);
        }
        const std::vector<StreamPlan> plan = planStreams(source, container_, type_, request_, choice);
        if (choice.burnIn) {
            burnInto_ = encodedVideo(plan, source);
            burnIn_ = *choice.burnIn;
        }
        std::vector<DroppedTrack> dropped = tracksDroppedBy(plan, source, container_, choice, isAudioOnly());
        addLostChannels(plan, source, dropped);
        if (videoSettings_.strict || audioSettings_.strict) {
            requireNone(dropped);
        }
        OutputFile output(request_.destination, container_, progress_);
        Pump pump(source, output, progress_);
        bool encodes = false;
        for (const StreamPlan& one : plan) {
            if (one.treatment == StreamPlan::Treatment::Encode) {
                pump.add(makeTranscoder(source, one), {one.index});
                encodes = true;
            } else {
                pump.addCopy(one);
            }
        }
        pump.run(encodes);
        return {.truncatedAt = {source.truncatedAt()}, .droppedTracks = std::move(dropped)};
    }

private:
    /// Nothing is lost if the request itself chooses the number of channels.
    void addLostChannels(const std::vector<StreamPlan>& plan, const Source& source,
                         std::vector<DroppedTrack>& dropped) const {
        DroppedTracks lost(source, container_);
        for (const StreamPlan& one : plan) {
            const bool encodesAudio = one.codec && one.codec->type == AVMEDIA_TYPE_AUDIO;
            if (encodesAudio && !audioSettings_.channels) {
                lost.addLostChannels(one.index, channelsKept(source.stream(one.index), *one.codec));
            }
        }
        for (DroppedTrack& each : lost.take()) {
            dropped.push_back(std::move(each));
        }
    }

    [[nodiscard]] bool isAudioOnly() const { return type_.video == EncodingType::Codec::None && !request_.flattenOnly; }

    /// Returns the stream of the video into which subtitles are drawn.
    static std::size_t encodedVideo(const std::vector<StreamPlan>& plan, const Source& source) {
        std::vector<std::size_t> video;
        for (const StreamPlan& one : plan) {
            const bool encodes = one.treatment == StreamPlan::Treatment::Encode;
            const bool copies = one.treatment == StreamPlan::Treatment::Copy;
            if ((encodes || copies) && source.stream(one.index).codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
                video.push_back(one.index);
            }
        }
        const auto main = defaultOrFirst(source, video);
        const auto planned =
            std::find_if(plan.begin(), plan.end(), [&](const StreamPlan& one) { return main && one.index == *main; });
        if (planned == plan.end() || planned->treatment != StreamPlan::Treatment::Encode) {
            throw Failure({.cause = FailureCause::UnsupportedSetting,
                           .subject = "burnInSubtitleTrack",
                           .detail = main ? "needs video that is encoded, and this conversion copies it"
                                          : "needs video, and this conversion writes none"});
        }
        return *main;
    }

    static void requireNone(const std::vector<DroppedTrack>& dropped) {
        if (dropped.empty()) {
            return;
        }
        const DroppedTrack& first = dropped.front();
        throw Failure({.cause = FailureCause::WouldDropTrack,
                       .subject = first.index < 0 ? first.kind : fmt::format("{} of track {}", first.kind, first.index),
                       .detail = first.reason});
    }

    std::unique_ptr<Track> makeTranscoder(const Source& source, const StreamPlan& plan) {
        const AVStream& from = source.stream(plan.index);
        if (plan.codec->type == AVMEDIA_TYPE_VIDEO) {
            VideoTranscoder::Request request{*plan.codec, request_.video ? request_.video->quality : 0,
                                             request_.video ? request_.video->fps : 0, videoSettings_};
            if (burnInto_ == plan.index) {
                request.burnIn = [this](const FrameLayout& layout) {
                    return std::make_unique<BurnIn>(BurnIn::Request{request_.source, request_.sourcePath, part_,
                                                                    *burnInto_, burnIn_, request_.font},
                                                    layout, progress_);
                };
            }
            if (plan.codec->id == AV_CODEC_ID_GIF) {
                checkRange("frame rate", request.fps, kSlowest, kHighestGIFRate);
                progress_.beginPhase(kPaletteMade);
                Source again(request_.source, request_.sourcePath, progress_);
                if (part_) {
                    again.restrictTo(*part_);
                }
                PaletteChooser chooser(videoSettings_, container_);
                chooser.read(again, plan.index, request.burnIn);
                request.palette = chooser.palette();
            }
            return std::make_unique<VideoTranscoder>(source, from, std::move(request));
        }
        return std::make_unique<AudioTranscoder>(
            source, from,
            AudioTranscoder::Request{*plan.codec, request_.audio ? request_.audio->quality : 0, audioSettings_});
    }

    const EncodeRequest& request_;
    Progress progress_;
    const Container& container_;
    const EncodingType& type_;
    Settings videoSettings_;
    Settings audioSettings_;
    std::optional<Part> part_;
    std::optional<std::size_t> burnInto_;  // the video into which subtitles are drawn
    std::size_t burnIn_ = 0;               // these subtitles
};

}  // namespace

MovieReport encode(const EncodeRequest& request, ProgressSink& sink) {
    return Encoding(request, sink).run();
}

}  // namespace krv::media
