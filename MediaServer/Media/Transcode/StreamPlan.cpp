#include <algorithm>
#include <string>

#include <fmt/format.h>

#include <MediaServer/Media/Container/DroppedTracks.h>
#include <MediaServer/Media/Container/HiddenPackets.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Transcode/StreamPlan.h>

namespace krv::media {
namespace {

using Treatment = StreamPlan::Treatment;

/// In microseconds.
constexpr std::int64_t kUnheardDelay = 10'000;

class Planner {
public:
    Planner(const Source& source, const Container& container, const EncodingType& type, const EncodeRequest& request,
            const TrackChoice& choice)
        : source_(source)
        , container_(container)
        , type_(type)
        , request_(request)
        , choice_(choice)
        , keepAll_(request.flattenOnly || type.video == EncodingType::Codec::Copy) {}

    std::vector<StreamPlan> plan() {
        for (const auto index : tracks(AVMEDIA_TYPE_VIDEO, !keepAll_)) {
            planVideo(index);
        }
        for (const auto index : tracks(AVMEDIA_TYPE_AUDIO, container_.singleTrack)) {
            planAudio(index);
        }
        if (plan_.empty()) {
            throw Failure({.cause = whyEmpty()});
        }
        return planRest();
    }

    std::vector<StreamPlan> planAllButAudio() {
        if (container_.defaultVideo != 0) {
            for (const auto index : tracks(AVMEDIA_TYPE_VIDEO, false)) {
                if (losesEdits(source_.stream(index))) {
                    encodeAgain(index, AVMEDIA_TYPE_VIDEO);
                } else {
                    copyOrRefuse(index);
                }
            }
        }
        return planRest();
    }

private:
    std::vector<StreamPlan> planRest() {
        for (const auto index : tracks(AVMEDIA_TYPE_SUBTITLE, false)) {
            planSubtitles(index);
        }
        for (const auto index : tracks(AVMEDIA_TYPE_DATA, false)) {
            planData(index);
        }
        planCovers();
        planAttachments();
        return std::move(plan_);
    }

    /// Returns the indices of the usable streams of a kind, or only the default or first one.
    std::vector<std::size_t> tracks(AVMediaType kind, bool onlyOne) const {
        std::vector<std::size_t> found = usableStreams(source_, kind);
        std::erase_if(found, [&](std::size_t index) { return !choice_.keeps(kind, index); });
        if (const auto one = defaultOrFirst(source_, found); onlyOne && one) {
            found = {*one};
        }
        return found;
    }

    void planVideo(std::size_t index) {
        const AVStream& stream = source_.stream(index);
        if (request_.flattenOnly) {
            return copyOrRefuse(index);
        }
        const std::uint32_t asked = request_.video ? request_.video->codec : 0;
        switch (type_.video) {
        case EncodingType::Codec::None:
            return;
        case EncodingType::Codec::Copy:
            if (container_.holds(stream.codecpar->codec_id) && !losesPresentation(stream) && keepsTimes(stream)) {
                return canCut(stream) ? copy(index) : encodeAlike(index);
            }
            if (losesEdits(stream)) {
                return encodeAgain(index, AVMEDIA_TYPE_VIDEO);
            }
            return encodeByDefault(index, AVMEDIA_TYPE_VIDEO, container_.defaultVideo);
        case EncodingType::Codec::Settings:
            if (asked == 0) {
                return encodeByDefault(index, AVMEDIA_TYPE_VIDEO, container_.defaultVideo);
            }
            return encodeWith(index, AVMEDIA_TYPE_VIDEO, asked);
        case EncodingType::Codec::Fixed:
        case EncodingType::Codec::Preferred:
            return encodeWith(index, AVMEDIA_TYPE_VIDEO, type_.videoCodec);
        }
    }

    void planAudio(std::size_t index) {
        const AVStream& stream = source_.stream(index);
        if (request_.flattenOnly) {
            return copyOrRefuse(index);
        }
        const std::uint32_t asked = request_.audio ? request_.audio->codec : 0;
        switch (type_.audio) {
        case EncodingType::Codec::None:
            return;
        case EncodingType::Codec::Copy:
            if (losesEdits(stream)) {
                return encodeAgain(index, AVMEDIA_TYPE_AUDIO);
            }
            if (container_.holds(stream.codecpar->codec_id) && keepsTimes(stream)) {
                return canCut(stream) ? copy(index) : encodeAlike(index);
            }
            return encodeByDefault(index, AVMEDIA_TYPE_AUDIO, container_.defaultAudio);
        case EncodingType::Codec::Settings:
            if (asked == 0) {
                return encodeByDefault(index, AVMEDIA_TYPE_AUDIO, container_.defaultAudio);
            }
            return encodeWith(index, AVMEDIA_TYPE_AUDIO, asked);
        case EncodingType::Codec::Preferred:
            if (!container_.holds(codecForFourCC(type_.audioCodec, AVMEDIA_TYPE_AUDIO).id)) {
                return encodeByDefault(index, AVMEDIA_TYPE_AUDIO, container_.defaultAudio);
            }
            [[fallthrough]];
        case EncodingType::Codec::Fixed:
            return encodeWith(index, AVMEDIA_TYPE_AUDIO, type_.audioCodec);
        }
    }

    void planSubtitles(std::size_t index) {
        const AVCodecID codec = source_.stream(index).codecpar->codec_id;
        if (container_.singleTrack) {
            return;
        }
        if (container_.holds(codec)) {
            return copy(index);
        }
        if (isTextSubtitle(codec) && container_.textSubtitles != AV_CODEC_ID_NONE && avcodec_find_decoder(codec)) {
            plan_.push_back({index, Treatment::ConvertSubtitles, nullptr});
        }
    }

    /// Copies telemetry. The muxer creates the other data tracks (time code, chapter titles) itself.
    void planData(std::size_t index) {
        const AVStream& stream = source_.stream(index);
        const bool telemetry = stream.codecpar->codec_tag == MKTAG('g', 'p', 'm', 'd');
        if (keepAll_ && telemetry && std::string_view(container_.muxer) == "mov") {
            copy(index);
        }
    }

    void planCovers() {
        if (container_.cover == CoverArt::None) {
            return;
        }
        for (std::size_t i = 0; i < source_.streamCount(); ++i) {
            if (isCopyableCover(source_.stream(i))) {
                plan_.push_back({i, Treatment::Cover, nullptr});
            }
        }
    }

    /// Copies fonts and other files that subtitles refer to.
    void planAttachments() {
        if (!container_.holdsAttachments()) {
            return;
        }
        for (std::size_t i = 0; i < source_.streamCount(); ++i) {
            if (source_.stream(i).codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT) {
                copy(i);
            }
        }
    }

    /// Whether copying to this container would change what is shown. Without a display matrix the pixels themselves
    /// must be rotated.
    bool losesPresentation(const AVStream& stream) const {
        return losesEdits(stream) || (!container_.displayMatrix &&
                                      av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr) != nullptr);
    }

    /// Whether copying to this container would show frames that the edits of the movie cut out. An edit list of the
    /// output can hide them at the ends only. Audio at the beginning can also be left out.
    bool losesEdits(const AVStream& stream) const {
        const HiddenPackets hidden = hiddenPackets(stream);
        const bool video = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        return hidden.betweenEdits || (!container_.edits && (hidden.among || (hidden.before && video)));
    }

    /// Whether copying to this container keeps the times of the packets. Where frames are counted, only those of the
    /// same container are known to be in the order of display, at a constant rate; and audio must start at 0.
    bool keepsTimes(const AVStream& stream) const {
        if (container_.times != Times::Counted || source_.format().iformat->name == container_.extension) {
            return true;
        }
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO || stream.start_time == AV_NOPTS_VALUE) {
            return false;
        }
        const std::int64_t start =
            av_rescale_q(stream.start_time, stream.time_base, kMicroseconds) + source_.timeShift();
        return start < kUnheardDelay && start > -kUnheardDelay;
    }

    /// Whether a part of a copied track can begin and end where the request says. An edit list hides the frames before.
    /// Without one, every frame must be a key frame, or the part must begin with the movie and have its frames in order.
    /// Packets of audio are so short that cutting between them is exact enough; but lossless codecs lose nothing if
    /// they are encoded again, which is exact.
    bool canCut(const AVStream& stream) const {
        if (!source_.part() || container_.edits) {
            return true;
        }
        const AVCodecDescriptor* const descriptor = avcodec_descriptor_get(stream.codecpar->codec_id);
        const int properties = descriptor ? descriptor->props : 0;
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            return (properties & AV_CODEC_PROP_LOSSY) != 0 || !codecLike(*stream.codecpar);
        }
        const bool inOrder = source_.part()->start == 0 && stream.codecpar->video_delay == 0;
        return (properties & AV_CODEC_PROP_INTRA_ONLY) != 0 || inOrder;
    }

    /// Encodes with the stream's own codec if possible, else with the container's default.
    void encodeAlike(std::size_t index) {
        const AVCodecParameters& codec = *source_.stream(index).codecpar;
        if (const Codec* const like = codecLike(codec); like && container_.holds(like->id)) {
            return encodeWith(index, codec.codec_type, like->fourCC);
        }
        const bool video = codec.codec_type == AVMEDIA_TYPE_VIDEO;
        encodeByDefault(index, codec.codec_type, video ? container_.defaultVideo : container_.defaultAudio);
    }

    void copy(std::size_t index) { plan_.push_back({index, Treatment::Copy, nullptr}); }

    void copyOrRefuse(std::size_t index) {
        const AVCodecID codec = source_.stream(index).codecpar->codec_id;
        if (!container_.holds(codec)) {
            throw Failure({.cause = FailureCause::ContainerCannotHold,
                           .subject = std::string(container_.extension),
                           .detail = avcodec_get_name(codec)});
        }
        if (losesEdits(source_.stream(index))) {
            throw Failure({.cause = FailureCause::EditsCannotBeCopied});
        }
        if (source_.stream(index).codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !canCut(source_.stream(index))) {
            throw Failure({.cause = FailureCause::SettingDoesNotApply,
                           .subject = "trimStart",
                           .detail = fmt::format("copies in {}", container_.extension)});
        }
        copy(index);
    }

    /// Encodes a track that cannot be copied, in its own codec if possible.
    void encodeAgain(std::size_t index, AVMediaType kind) {
        const Codec* const like = codecLike(*source_.stream(index).codecpar);
        if (like && container_.holds(like->id)) {
            return encodeWith(index, kind, like->fourCC);
        }
        encodeByDefault(index, kind, kind == AVMEDIA_TYPE_VIDEO ? container_.defaultVideo : container_.defaultAudio);
    }

    void encodeByDefault(std::size_t index, AVMediaType kind, std::uint32_t fourCC) {
        if (fourCC != 0) {
            encodeWith(index, kind, fourCC);
        }
    }

    void encodeWith(std::size_t index, AVMediaType kind, std::uint32_t fourCC) {
        const Codec& codec = codecForFourCC(fourCC, kind);
        if (!container_.holds(codec.id)) {
            throw Failure({.cause = FailureCause::ContainerCannotHold,
                           .subject = std::string(container_.extension),
                           .detail = codec.displayName});
        }
        const AVCodecID from = source_.stream(index).codecpar->codec_id;
        if (!avcodec_find_decoder(from)) {
            throw Failure({.cause = FailureCause::UndecodableCodec, .subject = avcodec_get_name(from)});
        }
        plan_.push_back({index, Treatment::Encode, &codec});
    }

    FailureCause whyEmpty() const {
        const bool video = !tracks(AVMEDIA_TYPE_VIDEO, false).empty();
        const bool audio = !tracks(AVMEDIA_TYPE_AUDIO, false).empty();
        if (video && !audio) {
            return FailureCause::NoAudioTrack;
        }
        if (audio && !video && container_.defaultAudio == 0) {
            return FailureCause::NoVideoTrack;
        }
        return video || audio ? FailureCause::NoPlayableTrack : FailureCause::NoVideoOrAudioTrack;
    }

    const Source& source_;
    const Container& container_;
    const EncodingType& type_;
    const EncodeRequest& request_;
    const TrackChoice& choice_;
    const bool keepAll_;
    std::vector<StreamPlan> plan_;
};

}  // namespace

std::vector<StreamPlan> planStreams(const Source& source, const Container& container, const EncodingType& type,
                                    const EncodeRequest& request, const TrackChoice& choice) {
    return Planner(source, container, type, request, choice).plan();
}

std::vector<StreamPlan> planAllButAudio(const Source& source, const Container& container) {
    EncodeRequest request;
    request.flattenOnly = true;
    const TrackChoice everything;
    return Planner(source, container, encodingTypeNumbered(0), request, everything).planAllButAudio();
}

std::vector<DroppedTrack> tracksDroppedBy(const std::vector<StreamPlan>& plan, const Source& source,
                                          const Container& container, const TrackChoice& choice, bool audioOnly) {
    DroppedTracks dropped(source, container);
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        const AVStream& stream = source.stream(i);
        const auto planned =
            std::find_if(plan.begin(), plan.end(), [i](const StreamPlan& each) { return each.index == i; });
        if (planned == plan.end()) {
            const AVMediaType kind = stream.codecpar->codec_type;
            const bool missed = choice.keeps(kind, i) && (!audioOnly || isCover(stream) || kind == AVMEDIA_TYPE_AUDIO);
            if (missed) {
                dropped.add(i);
            }
            continue;
        }
        dropped.addLostProperties(i);
        if (planned->treatment == Treatment::Copy) {
            dropped.addCopiedAlpha(i);
        }
        const bool encodesVideo =
            planned->treatment == Treatment::Encode && planned->codec && planned->codec->type == AVMEDIA_TYPE_VIDEO;
        if (encodesVideo && planned->codec->alphaPixelFormat == AV_PIX_FMT_NONE) {
            dropped.addEncodedAlpha(i);
        }
    }
    dropped.addChapters();
    return dropped.take();
}

}  // namespace krv::media
