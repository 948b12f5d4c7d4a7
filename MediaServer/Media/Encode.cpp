#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

#include <MediaServer/Media/AudioTranscoder.h>
#include <MediaServer/Media/Encode.h>
#include <MediaServer/Media/EncodingType.h>
#include <MediaServer/Media/FFmpegLog.h>
#include <MediaServer/Media/Metadata.h>
#include <MediaServer/Media/OutputFile.h>
#include <MediaServer/Media/Progress.h>
#include <MediaServer/Media/Settings.h>
#include <MediaServer/Media/Source.h>
#include <MediaServer/Media/StreamCopier.h>
#include <MediaServer/Media/StreamPlan.h>
#include <MediaServer/Media/SubtitleConverter.h>
#include <MediaServer/Media/VideoTranscoder.h>

namespace krv::media {
namespace {

// How many packets may be kept back, in bytes, while a stream still has to show its first picture.
constexpr std::int64_t kMostQueuedBytes = std::int64_t{64} << 20;

// Where the phases end. Moving the index to the front reads and writes everything once more, which counts
// where the streams were only copied.
constexpr double kCopied = 0.6;
constexpr double kEncoded = 0.98;

constexpr float kSlowest = 0.01F;
constexpr float kFastest = 1000;

class Job {
public:
    Job(const EncodeRequest& request, ProgressSink& sink)
        : request_(request)
        , progress_(sink)
        , container_(containerForPath(request.destinationPath))
        , type_(encodingTypeNumbered(request.encodingType)) {
        // Everything that can be wrong with the request itself is said before any file is looked at.
        if (request.video) {
            checkRange("quality", request.video->quality, 0, 1);
            checkRange("frame rate", request.video->fps, kSlowest, kFastest);
            videoSettings_ = parseSettings(request.video->settings, AVMEDIA_TYPE_VIDEO);
            if (request.video->codec != 0)
                (void)codecForFourCC(request.video->codec, AVMEDIA_TYPE_VIDEO);
        }
        if (request.audio) {
            checkRange("quality", request.audio->quality, 0, 1);
            audioSettings_ = parseSettings(request.audio->settings, AVMEDIA_TYPE_AUDIO);
            if (request.audio->codec != 0)
                (void)codecForFourCC(request.audio->codec, AVMEDIA_TYPE_AUDIO);
        }
    }

    void run() {
        Source source(request_.source, request_.sourcePath, progress_);
        OutputFile output(request_.destination, container_, progress_);
        makeTracks(source);
        progress_.beginPhase(encodes_ || !container_.indexInFront ? kEncoded : kCopied);
        const auto queued = prime(source);
        copyMovieMetadata(source, output);
        for (const auto& track : tracks_)
            track->open(output);
        output.writeHeader();
        convert(source, queued);
        if (output.packetCount() == 0)
            fail(FailureCode::UnusableSource, AVERROR_INVALIDDATA, "Nothing in it can be decoded");
        progress_.beginPhase(1);
        output.finish();
        progress_.finish();
    }

private:
    void makeTracks(Source& source) {
        const auto plan = planStreams(source, container_, type_, request_);
        byIndex_.resize(source.streamCount(), nullptr);
        std::vector<std::size_t> read;
        for (const StreamPlan& one : plan) {
            tracks_.push_back(makeTrack(source, one));
            byIndex_[one.index] = tracks_.back().get();
            if (one.treatment != StreamPlan::Treatment::Cover)
                read.push_back(one.index);
            encodes_ |= one.treatment == StreamPlan::Treatment::Encode;
        }
        source.select(read);
    }

    std::unique_ptr<Track> makeTrack(const Source& source, const StreamPlan& plan) const {
        const AVStream& from = source.stream(plan.index);
        switch (plan.treatment) {
        case StreamPlan::Treatment::Copy:
            return std::make_unique<StreamCopier>(from);
        case StreamPlan::Treatment::ConvertSubtitles:
            return std::make_unique<SubtitleConverter>(from);
        case StreamPlan::Treatment::Cover:
            return std::make_unique<CoverCopier>(from);
        case StreamPlan::Treatment::Encode:
            break;
        }
        if (plan.codec->type == AVMEDIA_TYPE_VIDEO)
            return std::make_unique<VideoTranscoder>(
                source, from,
                VideoTranscoder::Request{*plan.codec, request_.video ? request_.video->quality : 0,
                                         request_.video ? request_.video->fps : 0, videoSettings_});
        return std::make_unique<AudioTranscoder>(
            source, from,
            AudioTranscoder::Request{*plan.codec, request_.audio ? request_.audio->quality : 0, audioSettings_});
    }

    // Reads until every track knows what it will write. Packets of tracks that know already are kept for
    // later.
    std::deque<PacketPtr> prime(Source& source) {
        std::deque<PacketPtr> queued;
        std::int64_t bytes = 0;
        const auto waiting = [this] {
            return std::any_of(tracks_.begin(), tracks_.end(), [](const auto& track) { return !track->ready(); });
        };
        while (waiting() && bytes < kMostQueuedBytes) {
            PacketPtr packet = newPacket();
            if (!source.read(*packet))
                break;
            Track& track = *byIndex_[static_cast<std::size_t>(packet->stream_index)];
            if (!track.ready()) {
                track.push(*packet);
                continue;
            }
            bytes += packet->size;
            queued.push_back(std::move(packet));
        }
        return queued;
    }

    void convert(Source& source, const std::deque<PacketPtr>& queued) {
        for (const PacketPtr& packet : queued)
            push(*packet);
        const PacketPtr packet = newPacket();
        while (source.read(*packet)) {
            push(*packet);
            progress_.reach(source.position());
        }
        for (const auto& track : tracks_) {
            track->finish();
            progress_.alive();
        }
        progress_.reach(1);
    }

    void push(const AVPacket& packet) {
        byIndex_[static_cast<std::size_t>(packet.stream_index)]->push(packet);
        progress_.alive();
    }

    const EncodeRequest& request_;
    Progress progress_;
    const Container& container_;
    const EncodingType& type_;
    Settings videoSettings_;
    Settings audioSettings_;
    bool encodes_ = false;
    std::vector<std::unique_ptr<Track>> tracks_;
    std::vector<Track*> byIndex_;  // by index of the source's stream; null: not read
};

}  // namespace

void encode(const EncodeRequest& request, ProgressSink& sink) {
    FFmpegLog::instance().clear();
    try {
        Job(request, sink).run();
    } catch (Failure& failure) {
        failure.about(request.sourcePath, request.destinationPath);
        throw;
    }
}

}  // namespace krv::media
