#include <algorithm>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/StreamCopier.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Transcode/Pump.h>
#include <MediaServer/Media/Transcode/SubtitleConverter.h>

namespace krv::media {
namespace {

/// How many bytes of packets may be queued until the first frame of every stream is decoded.
constexpr std::int64_t kMostQueuedBytes = std::int64_t{64} << 20;

/// Where the phases end. Moving the index to the front reads and writes the whole file once more, which matters if the
/// streams are only copied.
constexpr double kCopied = 0.6;
constexpr double kEncoded = 0.98;

/// The places of samples in larger files may or may not fit in 32 bits, depending on the room for the index.
constexpr std::int64_t kLargestFile = std::int64_t{3} << 30;

/// Muxers divide the samples differently, and write tags of their own.
constexpr std::int64_t kIndexMargin = std::int64_t{16} << 10;

}  // namespace

Pump::Pump(Source& source, OutputFile& output, Progress& progress)
    : source_(source)
    , output_(output)
    , progress_(progress)
    , byIndex_(source.streamCount(), nullptr) {}

void Pump::add(std::unique_ptr<Track> track, const std::vector<std::size_t>& indices) {
    for (const std::size_t index : indices) {
        byIndex_.at(index) = track.get();
        read_.push_back(index);
    }
    tracks_.push_back(std::move(track));
}

void Pump::addCopy(const StreamPlan& plan) {
    const AVStream& from = source_.stream(plan.index);
    if (plan.treatment == StreamPlan::Treatment::Cover) {
        return add(std::make_unique<CoverCopier>(from), {});
    }
    if (plan.treatment == StreamPlan::Treatment::ConvertSubtitles) {
        return add(std::make_unique<SubtitleConverter>(from), {plan.index});
    }
    copies_ = true;
    add(std::make_unique<StreamCopier>(from), {plan.index});
}

void Pump::run(bool encodes) {
    const std::int64_t index = output_.container().indexInFront ? expectedIndexSize() : 0;
    output_.expectIndex(index);
    if (index > 0 && !encodes) {
        output_.keepOrder();
    }
    progress_.beginPhase(encodes || index > 0 || !output_.container().indexInFront ? kEncoded : kCopied);
    reader_.emplace(source_, read_);
    const auto queued = prime();
    copyMovieMetadata(source_, output_);
    for (const auto& track : tracks_) {
        track->open(output_);
    }
    output_.writeHeader();
    convert(queued, encodes);
    if (output_.packetCount() == 0) {
        fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding");
    }
    progress_.beginPhase(1);
    output_.finish();
    progress_.finish();
}

// If streams are copied, their index will be about as large as it is. If they are encoded, or only a part is copied, it
// does not matter that the samples are moved in the end: that takes little time.
std::int64_t Pump::expectedIndexSize() const {
    if (source_.part() || !copies_ || source_.fileSize() > kLargestFile) {
        return 0;
    }
    const std::int64_t size = source_.indexSizeOf(read_);
    return size == 0 ? 0 : size + size / 16 + kIndexMargin;
}

// Reads until every track is ready. Queues the packets of tracks that are already ready.
std::deque<PacketPtr> Pump::prime() {
    std::deque<PacketPtr> queued;
    std::int64_t bytes = 0;
    const auto waiting = [this] {
        return std::any_of(tracks_.begin(), tracks_.end(), [](const auto& track) { return !track->ready(); });
    };
    while (waiting() && bytes < kMostQueuedBytes) {
        PacketPtr packet = newPacket();
        if (!reader_->read(*packet)) {
            break;
        }
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

void Pump::convert(const std::deque<PacketPtr>& queued, bool encodes) {
    for (const PacketPtr& packet : queued) {
        push(*packet);
        progress_.alive();
    }
    // Encoding time is proportional to the length of the movie, copying time to its bytes.
    if (encodes) {
        output_.onWrite([this] { reportEncoded(); });
    }
    const PacketPtr packet = newPacket();
    while (reader_->read(*packet)) {
        push(*packet);
        if (encodes) {
            progress_.alive();
        } else {
            progress_.reach(source_.bytePosition());
        }
    }
    for (const auto& track : tracks_) {
        track->finish();
        progress_.alive();
    }
    progress_.reach(1);
}

// The source is read ahead of the encoders, by many seconds of a short movie.
void Pump::reportEncoded() {
    double done = 1;
    for (const auto& track : tracks_) {
        done = std::min(done, track->done());
    }
    progress_.reach(std::min(source_.position(), 1.0) * done);
}

void Pump::push(AVPacket& packet) {
    byIndex_[static_cast<std::size_t>(packet.stream_index)]->push(packet);
}

}  // namespace krv::media
