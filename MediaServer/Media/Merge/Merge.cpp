#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>

#include <fmt/format.h>

#include <MediaServer/Media/Container/DroppedTracks.h>
#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/StreamCopier.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/Merge/Merge.h>
#include <MediaServer/Media/Merge/MergeAudioTrack.h>
#include <MediaServer/Media/Merge/MergeCopyTrack.h>
#include <MediaServer/Media/Merge/MergePlan.h>
#include <MediaServer/Media/Merge/MergeSubtitleCopyTrack.h>
#include <MediaServer/Media/Merge/MergeSubtitleTrack.h>
#include <MediaServer/Media/Merge/MergeVideoTrack.h>
#include <MediaServer/Media/Video/FrameRate.h>

// How time is laid out.
//
// A source ends where its longest track ends, or its shortest if the request asks for that. Headers are not exact
// enough to tell where that is. Many containers store one length for all tracks, recordings store none, and the length
// of audio includes the padding of its last packet. So every source is read through once before anything is written,
// packet by packet and without decoding. The end of a track follows from the packets that are shown. Packets that an
// edit list hides do not count. Neither do the samples that prime a decoder or pad the last packet. This costs one more
// reading, and it buys two things. The end of the shortest track is known in time. And a broken source is found before
// hours have been spent on the sources before it.
//
// Lengths are added up exactly and only then rounded to the grid of frames, each boundary on its own. So the boundaries
// lie on the grid, and the first frame of every source is shown exactly where its audio begins. The rounding of one
// join is not added to that of the next. After a hundred sources the last boundary is off by at most half a frame, for
// audio and video alike. Within a source every time is its own time plus its boundary. Nothing is placed "after the
// previous item", which is how small errors would grow. If a boundary lies a little before the end of a source, the
// rest is cut off. If it lies after the end, the gap is filled. Audio gets silence, counted in samples; video repeats
// its last frame at every tick. If the first frame is later than the beginning of its source, it is shown from the
// beginning. Otherwise the last frame of the previous source would remain.
//
// Copied tracks bring their own times with them. Reordered frames are decoded before they are shown, so their first
// decoding times lie before the zero of their source. These times fall into a period in which the previous source shows
// frames that are already decoded. Decoding times therefore still rise, provided that no frame has been cut off there.
// If one would have to be, or if an edit list hides frames in the middle, the video is encoded instead. Audio packets
// have a fixed length, of which a boundary is never a multiple. Suppose that each packet were written at its own time.
// Then players that count samples and players that use timestamps would drift apart by some milliseconds per join. So
// packets are counted. Each is written directly after the previous one, unless that would be off by more than half a
// packet. A packet is dropped if it begins more than half a packet before the end of the previous one. It is also
// dropped if it lies mostly after the end of its source. AAC begins with a priming packet, which is dropped in this way
// in every source but the first. The decoder then overlaps the first packet of a source with the last one of the
// previous source, which sounds like a short cross-fade. So audio is never out of sync by more than half a packet, and
// its packets have no gaps. Longer pauses cannot be copied, because there is no silence in the source's codec at hand.
// In that case audio is encoded.
//
// Subtitles do not make a source longer. Those of all sources in one language follow one another in one track, in which
// a source without them leaves a pause. A line that would last beyond the end of its source is cut there.

namespace krv::media {
namespace {

/// Where the phases end. The survey reads the sources once. Encoding takes far longer than that. Copying reads them a
/// second time, and moving the index to the front takes as long again.
constexpr double kSurveyed = 0.05;
constexpr double kCopied = 0.65;
constexpr double kEncoded = 0.98;

/// Limits of a frame rate that a request asks for, in frames per second.
constexpr double kSlowest = 0.01;
constexpr double kFastest = 1000;

/// Limits of a size that a request asks for, in pixels.
constexpr int kShortestSide = 2;
constexpr int kLongestSide = 16384;

/// A chapter that begins this early begins with its source.
constexpr std::int64_t kSameStart = AV_TIME_BASE / 10;

/// How far apart tracks may be interleaved in one file.
constexpr std::int64_t kInterleaving = AV_TIME_BASE;

std::string nameOf(const std::string& path) {
    const std::string file = path.substr(path.rfind('/') + 1);
    const auto dot = file.rfind('.');
    return dot == std::string::npos || dot == 0 ? file : file.substr(0, dot);
}

FramePtr firstFrame(Source& source, std::size_t index) {
    source.select({index});
    Decoder decoder(source.stream(index));
    FramePtr first;
    const auto take = [&](FramePtr frame) {
        if (!first) {
            first = std::move(frame);
        }
    };
    const PacketPtr packet = newPacket();
    while (!first && source.read(*packet)) {
        decoder.push(*packet, take);
    }
    if (!first) {
        decoder.finish(take);
    }
    if (!first) {
        fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding video");
    }
    return first;
}

[[noreturn]] void refuse(std::string what, std::string allowed) {
    throw Failure({.cause = FailureCause::ValueOutOfRange, .subject = std::move(what), .detail = std::move(allowed)});
}

bool isSide(double side) {
    // Halves of a side are stored for colours.
    return side >= kShortestSide && side <= kLongestSide && std::fmod(side, 2) == 0;
}

MergeWishes checkedWishes(const MergeRequest& request, const Container& container) {
    MergeWishes wishes;
    wishes.useShortest = request.useShortest;
    if (request.frameRate) {
        const double highest = container.times == Times::Delays ? kHighestGIFRate : kFastest;
        if (!(*request.frameRate >= kSlowest && *request.frameRate <= highest)) {  // NaN is in no range
            refuse(fmt::format("frame rate {}", *request.frameRate), fmt::format("from {} to {}", kSlowest, highest));
        }
        wishes.rate = rationalRate(*request.frameRate);
    }
    if (request.size) {
        const auto [width, height] = *request.size;
        if (!isSide(width) || !isSide(height)) {
            refuse(fmt::format("size {} x {}", width, height),
                   fmt::format("of even sides from {} to {}", kShortestSide, kLongestSide));
        }
        wishes.width = static_cast<int>(width);
        wishes.height = static_cast<int>(height);
    }
    return wishes;
}

class Merger {
public:
    Merger(const MergeRequest& request, ProgressSink& sink)
        : request_(request)
        , progress_(sink)
        , container_(containerForPath(request.destinationPath))
        , wishes_(checkedWishes(request, container_)) {}

    MovieReport run() {
        if (request_.sources.empty()) {
            throw Failure({.cause = FailureCause::InvalidArgument, .subject = "sources", .detail = "is empty"});
        }
        surveyAll();
        plan_ = planMerge(surveys_, container_, wishes_);
        OutputFile output(request_.destination, container_, progress_);
        describe(output);
        makeTracks();
        for (const auto& track : tracks_) {
            track->open(output);
        }
        const std::unique_ptr<CoverCopier> cover = makeCover();
        if (cover) {
            cover->open(output);
        }
        copyAttachments(output);
        output.writeHeader();
        if (cover) {
            cover->finish();
        }
        progress_.beginPhase(plan_.encodes() || !container_.indexInFront ? kEncoded : kCopied);
        for (at_ = 0; at_ < surveys_.size(); ++at_) {
            blamingSource([this] { append(); });
        }
        for (const auto& track : tracks_) {
            track->finish();
        }
        if (output.packetCount() == 0) {
            fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding");
        }
        progress_.beginPhase(1);
        output.finish();
        progress_.finish();
        return std::move(report_);
    }

private:
    /// Runs a step that reads the current source. Sets Failure::source if the step fails.
    template <typename Step>
    void blamingSource(const Step& step) {
        try {
            step();
        } catch (Failure& failure) {
            if (failure.cause != FailureCause::UnwritableDestination) {
                failure.source = at_;
            }
            throw;
        }
    }

    std::unique_ptr<Source> open(std::size_t index) {
        const auto& input = request_.sources[index];
        return std::make_unique<Source>(input.descriptor, input.path, progress_);
    }

    void surveyAll() {
        progress_.beginPhase(kSurveyed);
        const auto count = static_cast<double>(request_.sources.size());
        for (at_ = 0; at_ < request_.sources.size(); ++at_) {
            blamingSource([&] {
                const auto source = open(at_);
                surveys_.push_back(survey(*source, [&](double position) {
                    progress_.reach((static_cast<double>(at_) + std::clamp(position, 0.0, 1.0)) / count);
                }));
                report_.truncatedAt.push_back(source->truncatedAt());
                keepSharedTags(*source);
            });
        }
    }

    void keepSharedTags(const Source& source) {
        AVDict own;
        copyTags(source.format().metadata, own.address());
        if (at_ == 0) {
            return copyTags(own.get(), tags_.address());
        }
        AVDict shared;
        const AVDictionaryEntry* entry = nullptr;
        while ((entry = av_dict_get(tags_.get(), "", entry, AV_DICT_IGNORE_SUFFIX))) {
            if (const char* value = own.get(entry->key); value && std::string_view(value) == entry->value) {
                shared.set(entry->key, value);
            }
        }
        std::swap(*tags_.address(), *shared.address());
    }

    void describe(OutputFile& output) const {
        copyTags(tags_.get(), &output.format().metadata);
        std::vector<Chapter> chapters;
        for (std::size_t i = 0; i < surveys_.size(); ++i) {
            addChaptersOf(i, chapters);
        }
        addChapters(chapters, plan_.boundary(surveys_.size()), output);
    }

    /// Adds a chapter for the source, and its own chapters. If the first of these begins with the source, one chapter
    /// with both names takes the place of both.
    void addChaptersOf(std::size_t index, std::vector<Chapter>& chapters) const {
        const SourceSurvey& source = surveys_[index];
        const std::int64_t begin = plan_.boundary(index);
        chapters.push_back({begin, source.title.empty() ? nameOf(request_.sources[index].path) : source.title});
        for (const Chapter& own : source.chapters) {
            if (begin + own.start >= plan_.boundary(index + 1)) {
                break;
            }
            if (own.start < kSameStart) {
                chapters.back().title += own.title.empty() ? "" : ": " + own.title;
            } else {
                chapters.push_back({begin + own.start, own.title});
            }
        }
    }

    /// Returns a copier for the first cover of all sources. Null if there is none, or the container cannot hold it.
    std::unique_ptr<CoverCopier> makeCover() {
        if (container_.cover == CoverArt::None) {
            return nullptr;
        }
        for (at_ = 0; at_ < surveys_.size(); ++at_) {
            if (surveys_[at_].cover) {
                coverOf_ = at_;
                auto& model = models_[at_];
                blamingSource([&] { model = model ? std::move(model) : open(at_); });
                return std::make_unique<CoverCopier>(model->stream(*surveys_[at_].cover));
            }
        }
        return nullptr;
    }

    /// Copies fonts and other files that subtitles refer to, each once.
    void copyAttachments(OutputFile& output) {
        if (!container_.holdsAttachments()) {
            return;
        }
        std::vector<SourceSurvey::Attachment> copied;
        for (at_ = 0; at_ < surveys_.size(); ++at_) {
            for (const auto& attachment : surveys_[at_].attachments) {
                if (std::find(copied.begin(), copied.end(), attachment) == copied.end()) {
                    auto& model = models_[at_];
                    blamingSource([&] { model = model ? std::move(model) : open(at_); });
                    StreamCopier(model->stream(attachment.index)).open(output);
                    copied.push_back(attachment);
                }
            }
        }
    }

    void makeTracks() {
        for (const PlannedTrack& track : plan_.tracks) {
            at_ = track.model;
            blamingSource([&] { tracks_.push_back(makeTrack(track)); });
        }
    }

    std::unique_ptr<MergeTrack> makeTrack(const PlannedTrack& track) {
        auto& model = models_[track.model];
        if (!model) {
            model = open(track.model);
        }
        const std::int64_t end = plan_.boundary(surveys_.size());
        const std::size_t index = track.parts[track.model]->index;
        const AVStream& stream = model->stream(index);
        if (track.kind == AVMEDIA_TYPE_SUBTITLE) {
            if (track.converts) {
                return std::make_unique<MergeSubtitleTrack>(stream);
            }
            return std::make_unique<MergeSubtitleCopyTrack>(stream);
        }
        if (!track.codec) {
            return std::make_unique<MergeCopyTrack>(stream);
        }
        if (track.kind == AVMEDIA_TYPE_VIDEO) {
            FramePtr palette = track.codec->id == AV_CODEC_ID_GIF ? choosePalette(track) : nullptr;
            return std::make_unique<MergeVideoTrack>(MergeVideoTrack::Model{stream, firstFrame(*model, index),
                                                                            plan_.tick, end, wishes_.width,
                                                                            wishes_.height, std::move(palette)},
                                                     *track.codec);
        }
        return std::make_unique<MergeAudioTrack>(stream, *track.codec, end);
    }

    FramePtr choosePalette(const PlannedTrack& track) {
        const Settings settings;
        PaletteChooser chooser(settings, container_);
        for (std::size_t i = 0; i < track.parts.size(); ++i) {
            if (track.parts[i]) {
                at_ = i;
                const auto source = open(i);
                chooser.read(*source, track.parts[i]->index);
            }
        }
        return chooser.palette();
    }

    /// Returns the share of a source in the progress.
    [[nodiscard]] double weight(std::size_t index) const {
        return plan_.encodes() ? static_cast<double>(plan_.boundaries[index + 1] - plan_.boundaries[index])
                               : static_cast<double>(surveys_[index].bytes);
    }

    void append() {
        double before = 0, all = 0;
        for (std::size_t i = 0; i < surveys_.size(); ++i) {
            all += weight(i);
            before += i < at_ ? weight(i) : 0;
        }
        const auto source = open(at_);
        std::map<int, std::size_t> trackOf;
        std::vector<std::size_t> read;
        for (std::size_t i = 0; i < tracks_.size(); ++i) {
            const TrackSurvey* track = plan_.tracks[i].parts[at_];
            if (track) {
                trackOf[static_cast<int>(track->index)] = i;
                read.push_back(track->index);
            }
            tracks_[i]->begin({track ? &source->stream(track->index) : nullptr, plan_.boundary(at_),
                               plan_.boundary(at_ + 1), at_ == 0, at_ + 1 == surveys_.size()});
        }
        source->select(read);
        listDropped(*source, read);
        std::vector<bool> done(tracks_.size());
        std::vector<std::int64_t> left;
        for (const PlannedTrack& track : plan_.tracks) {
            left.push_back(track.parts[at_] ? track.parts[at_]->packets : 0);
        }
        const PacketPtr packet = newPacket();
        while (!allDone(done) && source->read(*packet)) {
            const std::size_t number = trackOf.at(packet->stream_index);
            const std::int64_t time = timeOf(*packet, *source);
            if (time > plan_.boundary(at_ + 1) - plan_.boundary(at_) + kInterleaving) {
                done[number] = true;
            }
            if (!done[number]) {
                tracks_[number]->push(*packet);
            }
            --left[number];
            fillEnded(left, time);
            const double position = plan_.encodes() ? source->position() : source->bytePosition();
            progress_.reach((before + weight(at_) * std::clamp(position, 0.0, 1.0)) / std::max(all, 1.0));
        }
        for (const auto& track : tracks_) {
            track->end();
        }
        progress_.reach((before + weight(at_)) / std::max(all, 1.0));
    }

    /// Adds to the report what the merged movie does not have of the current source.
    void listDropped(const Source& source, const std::vector<std::size_t>& kept) {
        DroppedTracks dropped(source, container_, at_);
        for (std::size_t i = 0; i < source.streamCount(); ++i) {
            if (std::find(kept.begin(), kept.end(), i) != kept.end()) {
                continue;
            }
            const AVStream& stream = source.stream(i);
            if (isCover(stream)) {
                if (container_.cover == CoverArt::None) {
                    dropped.add(i);
                } else if (coverOf_ != at_ || surveys_[at_].cover != i) {
                    dropped.add(i, "a merge keeps the first cover only");
                }
            } else if (stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO && !container_.singleTrack) {
                dropped.add(i, "the first source has fewer audio tracks");
            } else if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO ||
                       stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
                dropped.add(i);
            } else if (stream.codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE) {
                const bool held = container_.holds(stream.codecpar->codec_id) && !container_.singleTrack;
                dropped.add(i, held ? "its format is not that of the first such subtitles" : "");
            } else if (stream.codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT) {
                if (!container_.holdsAttachments()) {
                    dropped.add(i);
                }
            } else {
                dropped.add(i, "a merge keeps no timed data");
            }
        }
        for (const PlannedTrack& track : plan_.tracks) {
            if (track.model == at_) {
                dropped.addLostProperties(track.parts[at_]->index);
            }
            if (track.kind == AVMEDIA_TYPE_VIDEO && track.parts[at_]) {
                listLostAlpha(track, dropped);
            }
        }
        dropped.addChapters();
        for (DroppedTrack& each : dropped.take()) {
            report_.droppedTracks.push_back(std::move(each));
        }
    }

    void listLostAlpha(const PlannedTrack& track, DroppedTracks& dropped) const {
        const std::size_t index = track.parts[at_]->index;
        if (!track.codec) {
            dropped.addCopiedAlpha(index);
        } else if (track.codec->alphaPixelFormat == AV_PIX_FMT_NONE) {
            dropped.addEncodedAlpha(index);
        } else if (!track.parts[track.model]->isTransparent) {
            dropped.addEncodedAlpha(index, "the first source is not transparent");
        }
    }

    [[nodiscard]] bool allDone(const std::vector<bool>& done) const {
        for (std::size_t i = 0; i < done.size(); ++i) {
            // Subtitles are sparse, so their latest packet says little about how far the source has been read.
            const bool decides = plan_.tracks[i].kind != AVMEDIA_TYPE_SUBTITLE;
            if (plan_.tracks[i].parts[at_] && decides && !done[i]) {
                return false;
            }
        }
        return true;
    }

    [[nodiscard]] static std::int64_t timeOf(const AVPacket& packet, const Source& source) {
        if (packet.dts == AV_NOPTS_VALUE) {
            return 0;
        }
        const AVStream& stream = source.stream(static_cast<std::size_t>(packet.stream_index));
        return av_rescale_q(packet.dts, stream.time_base, kMicroseconds);
    }

    /// Extends the tracks that the source does not have, or that have already ended, as the other tracks advance.
    /// Otherwise the muxer would have to buffer all packets of the other tracks until the source ends.
    void fillEnded(const std::vector<std::int64_t>& left, std::int64_t time) {
        for (std::size_t i = 0; i < tracks_.size(); ++i) {
            const TrackSurvey* track = plan_.tracks[i].parts[at_];
            if (left[i] <= 0 && time > (track ? track->end : 0) + kInterleaving) {
                tracks_[i]->hold(plan_.boundary(at_) + time - kInterleaving);
            }
        }
    }

    const MergeRequest& request_;
    Progress progress_;
    const Container& container_;
    const MergeWishes wishes_;
    std::size_t at_ = 0;  // the current source
    std::vector<SourceSurvey> surveys_;
    MovieReport report_;
    AVDict tags_;  // shared by all sources so far
    MergePlan plan_;
    std::map<std::size_t, std::unique_ptr<Source>> models_;
    std::optional<std::size_t> coverOf_;  // the source whose cover is kept
    std::vector<std::unique_ptr<MergeTrack>> tracks_;
};

}  // namespace

MovieReport merge(const MergeRequest& request, ProgressSink& sink) {
    return Merger(request, sink).run();
}

}  // namespace krv::media
