#include <algorithm>
#include <map>
#include <memory>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/Merge/Merge.h>
#include <MediaServer/Media/Merge/MergeAudioTrack.h>
#include <MediaServer/Media/Merge/MergeCopyTrack.h>
#include <MediaServer/Media/Merge/MergePlan.h>
#include <MediaServer/Media/Merge/MergeVideoTrack.h>

// How time is laid out.
//
// A source ends where its longest track ends, or its shortest if that is asked for. No header says that well
// enough: many containers know one length for all tracks, recordings none, and lengths of sound include what
// only fills the last packet. So every source is read through once before anything is written, packet by
// packet and without decoding. What a track's end is follows from the packets that are shown: those that an
// edit list hides do not count, and neither do the samples that a decoder needs to get started or that fill
// the last packet. It costs one more reading, and it buys two things: cutting at the shortest track is known
// in time, and a broken source is found before hours have been spent on those in front of it.
//
// Lengths are added up exactly, and only then rounded to the grid of pictures, each boundary on its own. So
// the boundaries stand on the grid, the first picture of every source is shown exactly where its sound
// begins, and what is rounded away at one join is not added to what is at the next: after a hundred sources
// the last one is off by half a picture at most, sound and picture together. Within a source every time is
// its own time plus its boundary; nothing is placed "after what came before", which is how small errors would
// grow. A boundary that lies a little before a source's end cuts the rest off, and one after it is filled:
// sound by silence, counted in samples, pictures by the last one again at every tick. A picture that is first
// shown later than its source begins is shown from the beginning, rather than another source's last one.
//
// Tracks that are copied bring times of their own with them. Pictures that are shown in another order than
// they are stored in begin to be decoded before they are shown, with decoding times before the source's zero.
// These fall into the time in which the source before is showing pictures that have been decoded already,
// and the rising order of decoding times is kept as long as no picture has been cut off there; where one would
// have to be, or where an edit list hides pictures in the middle, pictures are encoded instead. Packets of
// sound are of a fixed length that no boundary is a multiple of. If each were written at its time, players
// that count samples and players that look at times would drift apart by some milliseconds per join. So
// packets are counted: each is written directly after the one before it, unless that would be off by more
// than half a packet. Packets that begin more than half a packet before what there is already, or that lie
// mostly behind the end, are left out. The priming packet with which AAC begins is one of the former, except
// that of the very first source; the decoder then overlaps the first packet of a source with the last of the
// one before, which sounds like a short cross-fade. So sound is never out of step by more than half a packet,
// and its packets are without gaps. Longer pauses cannot be copied, because there is no silence in the
// source's codec at hand: then sound is encoded.

namespace krv::media {
namespace {

/// Looking through the sources is reading; encoding takes far longer than that, copying does it once more, and
/// moving the index to the front another time.
constexpr double kSurveyed = 0.05;
constexpr double kCopied = 0.65;
constexpr double kEncoded = 0.98;

/// Tracks of one file may be this far apart in it.
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

class Merger {
public:
    Merger(const MergeRequest& request, ProgressSink& sink)
        : request_(request)
        , progress_(sink)
        , container_(containerForPath(request.destinationPath)) {}

    void run() {
        if (request_.sources.empty()) {
            throw Failure({.cause = FailureCause::InvalidArgument, .subject = "sources", .detail = "is empty"});
        }
        surveyAll();
        plan_ = planMerge(surveys_, container_, request_.useShortest);
        OutputFile output(request_.destination, container_, progress_);
        describe(output);
        makeTracks();
        for (const auto& track : tracks_) {
            track->open(output);
        }
        output.writeHeader();
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
    }

private:
    /// Runs a step of the work on the current source. A failure of the source names it.
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
            chapters.push_back(
                {plan_.boundary(i), surveys_[i].title.empty() ? nameOf(request_.sources[i].path) : surveys_[i].title});
        }
        addChapters(chapters, plan_.boundary(surveys_.size()), output);
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
        if (!track.codec) {
            return std::make_unique<MergeCopyTrack>(stream);
        }
        if (track.kind == AVMEDIA_TYPE_VIDEO) {
            return std::make_unique<MergeVideoTrack>(
                MergeVideoTrack::Model{stream, firstFrame(*model, index), plan_.tick, end}, *track.codec);
        }
        return std::make_unique<MergeAudioTrack>(stream, *track.codec, end);
    }

    /// What a source counts for in the progress.
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

    [[nodiscard]] bool allDone(const std::vector<bool>& done) const {
        for (std::size_t i = 0; i < done.size(); ++i) {
            if (plan_.tracks[i].parts[at_] && !done[i]) {
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

    /// Tracks that the source does not have, or no more, are filled as the others go on: otherwise the muxer
    /// would have to keep all of the others' packets until the source ends.
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
    std::size_t at_ = 0;  // the source that is being worked on
    std::vector<SourceSurvey> surveys_;
    AVDict tags_;  // that all sources so far share
    MergePlan plan_;
    std::map<std::size_t, std::unique_ptr<Source>> models_;
    std::vector<std::unique_ptr<MergeTrack>> tracks_;
};

}  // namespace

void merge(const MergeRequest& request, ProgressSink& sink) {
    Merger(request, sink).run();
}

}  // namespace krv::media
