#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include <MediaServer/Media/Container/CompositionOffsets.h>
#include <MediaServer/Media/Container/EditList.h>
#include <MediaServer/Media/Container/EditTimes.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/Video/FrameReader.h>

namespace krv::media {
namespace {

/// An index that ends before this part of the movie is incomplete, or lists the first fragment only.
constexpr double kWholeMovie = 0.8;

/// So many of the key frames are read to check what their table says.
constexpr std::size_t kChecks = 8;

/// The time scale if no track has one.
constexpr int kMilliseconds = 1000;

class TimesFinder {
public:
    TimesFinder(const InterestingTimesRequest& request, ProgressSink& sink)
        : request_(request)
        , progress_(sink)
        , source_(request.source, request.sourcePath, progress_) {}

    InterestingTimes run() {
        if (request_.track) {
            const auto index = checkedTrack(*request_.track);
            useUnitsOf(source_.stream(index));
            if (source_.stream(index).codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
                addEdits(source_.stream(index).id);
            } else {
                addKeyFrames(index);
            }
        } else {
            addAll();
        }
        std::sort(times_.values.begin(), times_.values.end());
        times_.values.erase(std::unique(times_.values.begin(), times_.values.end()), times_.values.end());
        progress_.finish();
        times_.truncatedAt = source_.truncatedAt();
        return std::move(times_);
    }

private:
    /// A key frame according to the index.
    struct Key {
        std::size_t sample;    // its number among those of the index
        std::int64_t decoded;  // when, in units of the stream
    };

    std::size_t checkedTrack(std::int64_t track) const {
        if (track < 0 || static_cast<std::uint64_t>(track) >= source_.streamCount()) {
            throw Failure({.cause = FailureCause::NoSuchTrack,
                           .subject = std::to_string(track),
                           .detail = std::to_string(source_.streamCount())});
        }
        return static_cast<std::size_t>(track);
    }

    void addAll() {
        const auto video = mainVideoStream(source_);
        if (video) {
            useUnitsOf(source_.stream(*video));
        }
        add(0, kMicroseconds);
        const AVFormatContext& format = source_.format();
        for (unsigned i = 0; i < format.nb_chapters; ++i) {
            const AVChapter& chapter = *format.chapters[i];
            if (chapter.start != AV_NOPTS_VALUE) {
                addShifted(chapter.start, chapter.time_base);
            }
        }
        addEdits(std::nullopt);
        if (video) {
            addKeyFrames(*video);
        }
    }

    void useUnitsOf(const AVStream& stream) {
        times_.timescale = stream.time_base.den > 1 ? stream.time_base.den : kMilliseconds;
    }

    void add(std::int64_t time, AVRational unit) {
        times_.values.push_back(std::max<std::int64_t>(0, av_rescale_q(time, unit, {1, times_.timescale})));
    }
    void addShifted(std::int64_t time, AVRational unit) {
        add(time + av_rescale_q(source_.timeShift(), kMicroseconds, unit), unit);
    }

    /// Adds the edits of the track with this ID, or of all tracks.
    void addEdits(std::optional<int> trackID) {
        if (request_.track) {
            add(0, kMicroseconds);
        }
        if (std::string_view(source_.format().iformat->name).find("mov") == std::string_view::npos) {
            return;
        }
        const MovieEdits edits = movieBox() ? parseMovieEdits(*movieBox()) : MovieEdits{};
        if (edits.timeScale == 0 || edits.timeScale > INT32_MAX) {
            return;
        }
        for (const MovieEdits::Track& track : edits.tracks) {
            if (!trackID || track.id == static_cast<std::uint32_t>(*trackID)) {
                for (const std::int64_t start : track.starts) {
                    add(start, {1, static_cast<int>(edits.timeScale)});
                }
            }
        }
    }

    /// Returns the index of a movie of the QuickTime family, if it can be read.
    const std::optional<std::vector<std::byte>>& movieBox() {
        if (!std::exchange(movieBoxRead_, true)) {
            movieBox_ = readMovieBox(readAtDescriptor(request_.source), source_.fileSize());
        }
        return movieBox_;
    }

    void addKeyFrames(std::size_t index) {
        source_.select({index});
        if (!addFromIndex(index)) {
            addByReading(index);
        }
    }

    /// Returns false if there is no index of the whole track.
    bool addFromIndex(std::size_t index) {
        const std::string_view format = source_.format().iformat->name;
        const bool listsPackets = format.find("mov") != std::string_view::npos;
        const bool listsKeyFrames = format.find("matroska") != std::string_view::npos || format == "avi";
        if (!listsPackets && !listsKeyFrames) {
            return false;
        }
        // Seek first, because some demuxers read the index only when it is needed.
        if (!source_.seek(index, source_.start() + source_.duration() / 2)) {
            return false;
        }
        const std::vector<Key> keys = indexedKeys(source_.stream(index));
        if (keys.empty() || !reachesTheEnd(source_.stream(index))) {
            return false;
        }
        if (listsPackets) {
            addPackets(index, keys);
        } else {
            for (const Key& key : keys) {
                addShifted(key.decoded, source_.stream(index).time_base);
            }
        }
        return true;
    }

    static std::vector<Key> indexedKeys(AVStream& stream) {
        std::vector<Key> keys;
        const int count = avformat_index_get_entries_count(&stream);
        for (int i = 0; i < count; ++i) {
            const AVIndexEntry& entry = *avformat_index_get_entry(&stream, i);
            if ((entry.flags & AVINDEX_KEYFRAME) != 0 && (entry.flags & AVINDEX_DISCARD_FRAME) == 0) {
                keys.push_back({static_cast<std::size_t>(i), entry.timestamp});
            }
        }
        return keys;
    }

    bool reachesTheEnd(AVStream& stream) const {
        const int count = avformat_index_get_entries_count(&stream);
        const std::int64_t last =
            av_rescale_q(avformat_index_get_entry(&stream, count - 1)->timestamp, stream.time_base, kMicroseconds);
        return static_cast<double>(last + source_.timeShift()) >=
                   static_cast<double>(source_.start()) + kWholeMovie * static_cast<double>(source_.duration()) ||
               source_.duration() <= kMicroseconds.den;
    }

    /// The index contains the decoding times of key frames; their packets contain the presentation times.
    void addPackets(std::size_t index, const std::vector<Key>& keys) {
        source_.readTimesOnly();
        auto times = offsetTimes(index, keys);
        if (!times) {
            times = soughtTimes(index, keys);
        }
        if (!times) {
            return addByReading(index);  // cheap, because no contents are read
        }
        for (const std::int64_t time : *times) {
            add(time, source_.stream(index).time_base);
        }
    }

    /// Returns when key frames are presented according to the table from which FFmpeg takes that. A seek looks through
    /// the whole table, so this is how a long movie is done in time. Returns nothing if a packet contradicts it.
    std::optional<std::vector<std::int64_t>> offsetTimes(std::size_t index, const std::vector<Key>& keys) {
        AVStream& stream = source_.stream(index);
        if (!movieBox() || EditTimes::areNeededFor(stream)) {
            return std::nullopt;
        }
        std::vector<std::size_t> samples;
        for (const Key& key : keys) {
            samples.push_back(key.sample);
        }
        const auto count = static_cast<std::size_t>(avformat_index_get_entries_count(&stream));
        const auto offsets = compositionOffsets(*movieBox(), static_cast<std::uint32_t>(stream.id), samples, count);
        if (!offsets) {
            return std::nullopt;
        }
        std::vector<std::int64_t> times;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            times.push_back(keys[i].decoded + (*offsets)[i]);
        }
        std::optional<std::int64_t> shift;
        for (std::size_t check = 0; check < kChecks; ++check) {
            const std::size_t i = check * (keys.size() - 1) / (kChecks - 1);
            const auto time = soughtTime(index, keys, i);
            if (!time || *time - times[i] != shift.value_or(*time - times[i])) {
                return std::nullopt;
            }
            shift = *time - times[i];
        }
        std::for_each(times.begin(), times.end(), [&](std::int64_t& time) { time += *shift; });
        return times;
    }

    /// Returns when key frames are presented by reading each of them, or nothing if one is not found.
    std::optional<std::vector<std::int64_t>> soughtTimes(std::size_t index, const std::vector<Key>& keys) {
        std::vector<std::int64_t> times;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            progress_.reach(static_cast<double>(i) / static_cast<double>(keys.size()));
            const auto time = soughtTime(index, keys, i);
            if (!time) {
                return std::nullopt;
            }
            times.push_back(*time);
        }
        return times;
    }

    /// The demuxer seeks by presentation time. A key frame is presented no later than the next one is decoded, so a
    /// seek to just before that finds it.
    std::optional<std::int64_t> soughtTime(std::size_t index, const std::vector<Key>& keys, std::size_t i) {
        const AVStream& stream = source_.stream(index);
        const std::int64_t before = i + 1 < keys.size() ? keys[i + 1].decoded - 1 : INT64_MAX / 2;
        const bool there =
            av_seek_frame(&source_.format(), static_cast<int>(index), before, AVSEEK_FLAG_BACKWARD) >= 0 &&
            source_.read(*packet_) && packet_->pts != AV_NOPTS_VALUE &&
            packet_->dts - av_rescale_q(source_.timeShift(), kMicroseconds, stream.time_base) == keys[i].decoded;
        return there ? std::optional(packet_->pts) : std::nullopt;
    }

    void addByReading(std::size_t index) {
        (void)source_.rewind();
        const AVStream& stream = source_.stream(index);
        while (source_.read(*packet_)) {
            progress_.reach(source_.position());
            const std::int64_t time = packet_->pts != AV_NOPTS_VALUE ? packet_->pts : packet_->dts;
            const bool shown = (packet_->flags & AV_PKT_FLAG_DISCARD) == 0;
            if (shown && (packet_->flags & AV_PKT_FLAG_KEY) != 0 && time != AV_NOPTS_VALUE) {
                add(time, stream.time_base);
            }
        }
    }

    const InterestingTimesRequest& request_;
    Progress progress_;
    Source source_;
    const PacketPtr packet_ = newPacket();
    bool movieBoxRead_ = false;
    std::optional<std::vector<std::byte>> movieBox_;
    InterestingTimes times_;
};

}  // namespace

InterestingTimes interestingTimes(const InterestingTimesRequest& request, ProgressSink& sink) {
    return TimesFinder(request, sink).run();
}

}  // namespace krv::media
