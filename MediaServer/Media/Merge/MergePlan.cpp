#include <algorithm>
#include <cstring>

#include <MediaServer/Media/Container/Language.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Merge/MergePlan.h>
#include <MediaServer/Media/Video/GIFPalette.h>

namespace krv::media {
namespace {

/// Copied audio cannot be extended by silence. A pause at a join up to this length is left to the timestamps of the
/// packets; a longer one requires encoding.
constexpr std::int64_t kUnheardPause = 50'000;

/// At a join audio is out of sync by at most half a packet, which must not be noticeable.
constexpr std::int64_t kLongestPacket = 35'000;

/// Below this frame rate of the first source, in frames per second, the highest one is used.
constexpr double kSlideShow = 20;

/// MPEG-4 Part 2 stores the number of ticks per second in 16 bits. Other encoders prefer small numbers, too.
constexpr int kMostTicks = 65535;

bool sameRational(AVRational a, AVRational b) {
    return av_cmp_q(a.num > 0 ? a : AVRational{1, 1}, b.num > 0 ? b : AVRational{1, 1}) == 0;
}

/// Returns whether a decoder can continue with packets of the other track.
bool agree(const TrackSurvey& a, const TrackSurvey& b) {
    const AVCodecParameters& p = *a.parameters;
    const AVCodecParameters& q = *b.parameters;
    if (p.codec_id != q.codec_id || p.format != q.format || p.profile != q.profile ||
        p.extradata_size != q.extradata_size ||
        (p.extradata_size > 0 &&
         std::memcmp(p.extradata, q.extradata, static_cast<std::size_t>(p.extradata_size)) != 0)) {
        return false;
    }
    if (p.codec_type == AVMEDIA_TYPE_AUDIO) {
        return p.sample_rate == q.sample_rate && p.bits_per_coded_sample == q.bits_per_coded_sample &&
               av_channel_layout_compare(&p.ch_layout, &q.ch_layout) == 0;
    }
    if (p.codec_type == AVMEDIA_TYPE_SUBTITLE) {
        return true;
    }
    const bool sameColours = p.color_range == q.color_range && p.color_primaries == q.color_primaries &&
                             p.color_trc == q.color_trc && p.color_space == q.color_space;
    return a.isTransparent == b.isTransparent && p.width == q.width && p.height == q.height &&
           p.field_order == q.field_order && sameColours && sameRational(a.pixelShape, b.pixelShape) &&
           a.displayMatrix == b.displayMatrix;
}

class Planner {
public:
    Planner(const std::vector<SourceSurvey>& sources, const Container& container, const MergeWishes& wishes)
        : sources_(sources)
        , container_(container)
        , wishes_(wishes) {}

    MergePlan plan() {
        chooseTracks();
        chooseTick();
        // The positions of the sources depend on which tracks are copied, but not the other way round.
        for (PlannedTrack& track : plan_.tracks) {
            if (!canCopy(track)) {
                track.codec = &codecFor(track);
            }
        }
        layOut();
        addSubtitles();
        return std::move(plan_);
    }

private:
    void chooseTracks() {
        if (container_.defaultVideo != 0) {
            addTrack(AVMEDIA_TYPE_VIDEO, 0);
        }
        std::size_t audioTracks = 0;
        for (const SourceSurvey& source : sources_) {
            if (audioTracks == 0 && container_.defaultAudio != 0) {
                audioTracks = source.audio.size();
            }
        }
        for (std::size_t i = 0; i < (container_.singleTrack ? std::min<std::size_t>(1, audioTracks) : audioTracks);
             ++i) {
            addTrack(AVMEDIA_TYPE_AUDIO, i);
        }
        if (plan_.tracks.empty()) {
            throw Failure(
                {.cause = container_.defaultAudio == 0 ? FailureCause::NoVideoTrack : FailureCause::NoAudioTrack});
        }
    }

    void addTrack(AVMediaType kind, std::size_t number) {
        PlannedTrack track{kind, {}, sources_.size(), nullptr};
        for (std::size_t i = 0; i < sources_.size(); ++i) {
            const auto& all = kind == AVMEDIA_TYPE_VIDEO ? sources_[i].video : sources_[i].audio;
            track.parts.push_back(number < all.size() ? &all[number] : nullptr);
            if (track.parts.back() && track.model == sources_.size()) {
                track.model = i;
            }
        }
        if (track.model < sources_.size()) {
            plan_.tracks.push_back(std::move(track));
        }
    }

    void addSubtitles() {
        if (container_.singleTrack) {
            return;
        }
        std::vector<PlannedTrack> tracks;
        for (std::size_t i = 0; i < sources_.size(); ++i) {
            for (const TrackSurvey& part : sources_[i].subtitles) {
                addSubtitles(part, i, tracks);
            }
        }
        for (PlannedTrack& track : tracks) {
            track.converts = !canCopySubtitles(track);
            plan_.tracks.push_back(std::move(track));
        }
    }

    /// Adds the subtitles of a source to the first track for them that has none of this source yet, or to a new one.
    void addSubtitles(const TrackSurvey& part, std::size_t source, std::vector<PlannedTrack>& tracks) const {
        if (!container_.holds(part.parameters->codec_id) && !canConvert(part)) {
            return;
        }
        for (PlannedTrack& track : tracks) {
            const TrackSurvey& model = *track.parts[track.model];
            if (!track.parts[source] && isText(part) == isText(model) && part.forced == model.forced &&
                sameLanguage(part.language, model.language)) {
                if ((canConvert(part) && canConvert(model)) || agree(part, model)) {
                    track.parts[source] = &part;
                }
                return;
            }
        }
        tracks.push_back({AVMEDIA_TYPE_SUBTITLE, std::vector<const TrackSurvey*>(sources_.size()), source});
        tracks.back().parts[source] = &part;
    }

    static bool isText(const TrackSurvey& part) { return isTextSubtitle(part.parameters->codec_id); }

    bool canConvert(const TrackSurvey& part) const {
        return isText(part) && container_.textSubtitles != AV_CODEC_ID_NONE &&
               avcodec_find_decoder(part.parameters->codec_id);
    }

    bool canCopySubtitles(const PlannedTrack& track) const {
        const TrackSurvey& model = *track.parts[track.model];
        return container_.holds(model.parameters->codec_id) &&
               std::all_of(track.parts.begin(), track.parts.end(),
                           [&](const TrackSurvey* part) { return !part || agree(*part, model); });
    }

    void chooseTick() {
        const PlannedTrack& first = plan_.tracks.front();
        const TrackSurvey& model = *first.parts[first.model];
        AVRational rate = model.rate;
        // A still picture or an animation in front must not make a slide show of the others.
        for (const TrackSurvey* const part : first.parts) {
            if (av_q2d(model.rate) < kSlideShow && part && av_cmp_q(part->rate, rate) > 0) {
                rate = part->rate;
            }
        }
        if (wishes_.rate.num > 0) {
            rate = wishes_.rate;
        }
        if (container_.times == Times::Delays && av_q2d(rate) > kHighestGIFRate) {
            rate = {kHighestGIFRate, 1};
        }
        av_reduce(&rate.num, &rate.den, rate.num, rate.den, kMostTicks);
        plan_.tick = first.kind == AVMEDIA_TYPE_VIDEO ? av_inv_q(rate) : AVRational{1, model.parameters->sample_rate};
    }

    std::int64_t length(std::size_t source) const {
        return wishes_.useShortest ? sources_[source].shortest() : sources_[source].longest();
    }

    bool canCopy(const PlannedTrack& track) const {
        const TrackSurvey& model = *track.parts[track.model];
        const bool counts = container_.times != Times::Stored && track.kind == AVMEDIA_TYPE_VIDEO;
        if (!container_.holds(model.parameters->codec_id) || counts ||
            (!model.displayMatrix.empty() && !container_.displayMatrix)) {
            return false;
        }
        for (std::size_t i = 0; i < track.parts.size(); ++i) {
            const TrackSurvey* part = track.parts[i];
            if (!part || !agree(*part, model)) {
                return false;
            }
            const bool fits = track.kind == AVMEDIA_TYPE_VIDEO ? videoFits(*part, i) : audioFits(*part, i);
            if (!fits) {
                return false;
            }
        }
        return true;
    }

    /// Returns whether a track has the size and rate that the request asks for.
    bool isAsWished(const TrackSurvey& part) const {
        const AVCodecParameters& codec = *part.parameters;
        const bool sized =
            wishes_.width == 0 || (codec.width == wishes_.width && codec.height == wishes_.height &&
                                   part.displayMatrix.empty() && sameRational(part.pixelShape, AVRational{1, 1}));
        return sized && (wishes_.rate.num == 0 || av_cmp_q(part.rate, wishes_.rate) == 0);
    }

    bool videoFits(const TrackSurvey& part, std::size_t source) const {
        if (!isAsWished(part)) {
            return false;
        }
        const std::int64_t tick = av_rescale_q(1, plan_.tick, kMicroseconds);
        if (part.hidesLaterPackets || (part.hidesPackets && (source > 0 || !container_.edits))) {
            return false;  // only the beginning of a movie can have hidden frames
        }
        if (sources_.size() == 1 && !wishes_.useShortest) {
            return true;
        }
        // A frame cannot be cut off if frames that are stored after it are shown before it.
        const bool cut = length(source) < part.end - tick / 2;
        return part.startsWithKeyFrame && part.start <= tick && !(cut && part.reordersFrames);
    }

    bool audioFits(const TrackSurvey& part, std::size_t source) const {
        if (part.hidesLaterPackets) {
            return false;
        }
        if (sources_.size() == 1) {
            return true;
        }
        const std::int64_t pause = container_.times == Times::Stored ? kUnheardPause : 1000;
        return part.longestPacket <= kLongestPacket && part.start <= pause && part.end >= length(source) - pause;
    }

    const Codec& codecFor(const PlannedTrack& track) const {
        const Codec* like = codecLike(*track.parts[track.model]->parameters);
        // Other containers can hold a GIF's frames, but not as well as those of a codec for movies.
        const bool movie = like && (like->id != AV_CODEC_ID_GIF || container_.times == Times::Delays);
        if (movie && container_.holds(like->id)) {
            return *like;
        }
        return codecForFourCC(track.kind == AVMEDIA_TYPE_VIDEO ? container_.defaultVideo : container_.defaultAudio,
                              track.kind);
    }

    void layOut() {
        const auto toTicks = [this](std::int64_t time) { return av_rescale_q(time, kMicroseconds, plan_.tick); };
        const auto copied = std::find_if(plan_.tracks.begin(), plan_.tracks.end(), [](const PlannedTrack& track) {
            return track.kind == AVMEDIA_TYPE_VIDEO && !track.codec;
        });
        plan_.boundaries = {0};
        std::int64_t exact = 0;
        for (std::size_t i = 0; i < sources_.size(); ++i) {
            exact += length(i);
            std::int64_t next = std::max(plan_.boundaries.back() + 1, toTicks(exact));
            // Copied video cannot be shortened.
            if (copied != plan_.tracks.end()) {
                if (const TrackSurvey& part = *copied->parts[i]; !wishes_.useShortest || part.reordersFrames) {
                    next = std::max(next, plan_.boundaries.back() + toTicks(part.end));
                }
            }
            plan_.boundaries.push_back(next);
        }
    }

    const std::vector<SourceSurvey>& sources_;
    const Container& container_;
    const MergeWishes& wishes_;
    MergePlan plan_;
};

}  // namespace

std::int64_t MergePlan::boundary(std::size_t index) const {
    return av_rescale_q(boundaries[index], tick, kMicroseconds);
}

bool MergePlan::encodes() const {
    return std::any_of(tracks.begin(), tracks.end(), [](const PlannedTrack& track) { return track.codec; });
}

MergePlan planMerge(const std::vector<SourceSurvey>& sources, const Container& container, const MergeWishes& wishes) {
    return Planner(sources, container, wishes).plan();
}

}  // namespace krv::media
