#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include <sys/stat.h>

extern "C" {
#include <libavutil/timecode.h>
}

#include <MediaServer/Media/Container/EditList.h>
#include <MediaServer/Media/Container/EditTimes.h>
#include <MediaServer/Media/Container/FrameOrder.h>
#include <MediaServer/Media/Container/GIFTransparency.h>
#include <MediaServer/Media/Container/MovieIndex.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/SourceFormat.h>
#include <MediaServer/Media/Container/SpliceRepair.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Container/Truncation.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// How much of the file may be read to identify its streams.
constexpr std::int64_t kProbeBytes = 20'000'000;
constexpr std::int64_t kProbeTime = std::int64_t{10} * AV_TIME_BASE;

/// A movie whose first frame is later than this is a piece of a longer one, not a movie that begins with an empty edit.
constexpr std::int64_t kLongestEmptyStart = 60 * static_cast<std::int64_t>(AV_TIME_BASE);

/// Lengths in headers are inexact, but timestamps this far beyond the end are damaged.
constexpr std::int64_t kSlack = 10 * static_cast<std::int64_t>(AV_TIME_BASE);
constexpr std::int64_t kLongestMovie = std::int64_t{1000} * 3600 * AV_TIME_BASE;

/// A header that claims less than this per second, or more than the longest movie, is wrong about the length. Frames
/// that repeat the one before take a few bytes each.
constexpr std::int64_t kFewestBytesPerSecond = 1;

/// Demuxers report each failed attempt to resynchronise after damage. After this many in a row nothing more will
/// follow.
constexpr int kReadAttempts = 64;

/// Throws the failure of opening a source. A demuxer that runs out of memory has usually met a damaged header that
/// claims to need that much.
[[noreturn]] void unusable(int result, const char* attempt) {
    if (result == AVERROR(ENOMEM)) {
        throw Failure({.cause = FailureCause::NeedsTooMuchMemory});
    }
    fail(FailureCause::Damaged, result, attempt);
}

/// How the clock of a recording is sampled. A step between samples that is longer than a pause, and longer than so many
/// usual ones, is a jump.
constexpr int kClockSamples = 32;
constexpr int kPacketsPerSample = 2000;
constexpr std::int64_t kLongestPause = 10 * static_cast<std::int64_t>(AV_TIME_BASE);
constexpr std::int64_t kUnusualStep = 8;

int refuseToOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
    return AVERROR(EPERM);
}

std::int64_t checkedSize(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        throw Failure({.cause = FailureCause::UnreadableSource, .errorNumber = errno});
    }
    if (S_ISDIR(status.st_mode)) {
        throw Failure({.cause = FailureCause::SourceIsFolder});
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        throw Failure({.cause = FailureCause::SourceIsNotAFile});
    }
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        throw Failure({.cause = FailureCause::SourceIsEmpty});
    }
    return status.st_size;
}

/// Returns whether a bitmap has no end of its own. FFmpeg writes the largest possible duration then.
bool isShownUntilTheNext(const AVPacket& packet, const AVStream& stream) {
    return stream.codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE && !isTextSubtitle(stream.codecpar->codec_id) &&
           av_rescale_q(packet.duration, stream.time_base, kMicroseconds) > kLongestMovie;
}

}  // namespace

Source::Source(int descriptor, const std::string& path, Progress& progress)
    : descriptor_(descriptor)
    , size_(checkedSize(descriptor))
    , io_(descriptor, DescriptorIO::Mode::Read, [&progress](std::int64_t) { progress.alive(); }) {
    try {
        open(descriptor, path);
        throwIfUnreadable();
    } catch (...) {
        avformat_close_input(&format_);
        throwIfUnreadable();  // which explains any other failure
        throw;
    }
}

Source::~Source() {
    avformat_close_input(&format_);
}

void Source::open(int descriptor, const std::string& path) {
    const AVInputFormat& input = probeFormat(*io_.context(), path);
    format_ = notNull(avformat_alloc_context());
    format_->pb = io_.context();
    format_->io_open = &refuseToOpen;
    format_->flags |= AVFMT_FLAG_GENPTS;
    format_->probesize = kProbeBytes;
    format_->max_analyze_duration = kProbeTime;
    AVDict options;
    options.set("format_whitelist", input.name);  // a demuxer must not start another one
    options.set("protocol_whitelist", "none");
    int result = avformat_open_input(&format_, "", &input, options.address());
    if (result < 0) {
        unusable(result, "opening the file");
    }
    result = avformat_find_stream_info(format_, nullptr);
    if (result < 0) {
        unusable(result, "identifying the streams");
    }
    if (format_->nb_streams == 0) {
        throw Failure({.cause = FailureCause::NoTracks});
    }

    adoptTagsOfOgg();
    adoptLanguage();
    if (std::strcmp(input.name, "gif") == 0 && !showsThrough(descriptor, input)) {
        stream(0).codecpar->format = AV_PIX_FMT_0RGB32;
    }
    duration_ = format_->duration == AV_NOPTS_VALUE ? 0 : std::max<std::int64_t>(format_->duration, 0);
    claimsTooMuch_ = duration_ > kLongestMovie || duration_ / AV_TIME_BASE * kFewestBytesPerSecond > size_;
    duration_ = claimsTooMuch_ ? 0 : duration_;
    const std::int64_t start = format_->start_time == AV_NOPTS_VALUE ? 0 : format_->start_time;
    // The padding that MP3 encoders put in front of the audio is not a pause.
    const bool startsWithPadding = std::strcmp(input.name, "mp3") == 0;
    const bool clockStartsAnywhere =
        (input.flags & AVFMT_TS_DISCONT) != 0 || start < 0 || start > kLongestEmptyStart || startsWithPadding;
    shift_ = clockStartsAnywhere ? -start : 0;
    start_ = start + shift_;
    streamsInHeader_ = format_->nb_streams;
    wholeDuration_ = duration_;
    declaredSize_ = declaredSize(readAtDescriptor(descriptor), size_);
    const std::span streams(format_->streams, format_->nb_streams);
    if ((input.flags & AVFMT_TS_DISCONT) != 0) {
        repair_ = std::make_unique<SpliceRepair>(*format_);
        clockMayJump_ = true;
    } else if (FrameOrder::isNeededFor(*format_)) {
        repair_ = std::make_unique<FrameOrder>(*format_);
    } else if (std::any_of(streams.begin(), streams.end(),
                           [](const AVStream* each) { return EditTimes::areNeededFor(*each); })) {
        repair_ = std::make_unique<EditTimes>(*format_, readMovieEdits(readAtDescriptor(descriptor), size_));
    }
}

// Ogg stores the tags of a movie in its streams.
void Source::adoptTagsOfOgg() {
    if (std::strcmp(format_->iformat->name, "ogg") != 0 || av_dict_count(format_->metadata) > 0) {
        return;
    }
    for (const AVMediaType kind : {AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_VIDEO}) {
        for (unsigned i = 0; i < format_->nb_streams; ++i) {
            AVStream& stream = *format_->streams[i];
            if (stream.codecpar->codec_type != kind || isCover(stream) || av_dict_count(stream.metadata) == 0) {
                continue;
            }
            std::swap(format_->metadata, stream.metadata);
            if (const AVDictionaryEntry* const language = av_dict_get(format_->metadata, "language", nullptr, 0)) {
                av_dict_set(&stream.metadata, "language", language->value, 0);
                av_dict_set(&format_->metadata, "language", nullptr, 0);
            }
            return;
        }
    }
}

// Formats with a single track store its language among the tags of the file.
void Source::adoptLanguage() {
    const AVDictionaryEntry* const language = av_dict_get(format_->metadata, "language", nullptr, 0);
    const auto audio = usableStreams(*this, AVMEDIA_TYPE_AUDIO);
    if (language && audio.size() == 1 && usableStreams(*this, AVMEDIA_TYPE_VIDEO).empty()) {
        av_dict_set(&stream(audio.front()).metadata, "language", language->value, AV_DICT_DONT_OVERWRITE);
        av_dict_set(&format_->metadata, "language", nullptr, 0);
    }
}

void Source::restrictTo(const Part& part) {
    if (duration_ > 0 && part.start >= start_ + duration_) {
        throw Failure({.cause = FailureCause::UnsupportedSetting,
                       .subject = "trimStart",
                       .detail = "is not before the end of the movie"});
    }
    part_ = part;
    const std::int64_t end = duration_ > 0 ? std::min(part.end, start_ + duration_) : part.end;
    duration_ = end < Part::kEnd ? end - part.start : 0;
    shift_ -= part.start;
    start_ = std::max<std::int64_t>(0, start_ - part.start);
    shiftTimeCodes();
}

// The part begins at a later time code than the movie.
void Source::shiftTimeCodes() {
    AVRational rate{0, 1};
    for (unsigned i = 0; i < format_->nb_streams && rate.num == 0; ++i) {
        const AVStream& stream = *format_->streams[i];
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover(stream)) {
            rate = stream.avg_frame_rate;
        }
    }
    const auto shift = [&](AVDictionary** tags) {
        const AVDictionaryEntry* const tag = av_dict_get(*tags, "timecode", nullptr, 0);
        AVTimecode code{};
        if (!tag || rate.num <= 0 || av_timecode_init_from_string(&code, rate, tag->value, nullptr) < 0) {
            return;
        }
        std::array<char, AV_TIMECODE_STR_SIZE> text{};
        const std::int64_t frames = av_rescale_q(part_->start, kMicroseconds, av_inv_q(rate));
        av_timecode_make_string(&code, text.data(), static_cast<int>(frames));
        av_dict_set(tags, "timecode", text.data(), 0);
    };
    shift(&format_->metadata);
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        shift(&format_->streams[i]->metadata);
    }
}

std::int64_t Source::indexSizeOf(const std::vector<std::size_t>& indices) const {
    if (declaredSize_ || std::string_view(format_->iformat->name).find("mov") == std::string_view::npos) {
        return 0;
    }
    std::vector<int> tracks;
    for (const std::size_t index : indices) {
        tracks.push_back(stream(index).id);
    }
    return indexSize(readAtDescriptor(descriptor_), size_, tracks);
}

void Source::throwIfUnreadable() const {
    if (const int errorNumber = io_.errorNumber()) {
        throw Failure({.cause = FailureCause::UnreadableSource, .errorNumber = errorNumber});
    }
}

void Source::select(const std::vector<std::size_t>& indices) {
    for (std::size_t i = 0; i < format_->nb_streams; ++i) {
        const bool wanted = std::find(indices.begin(), indices.end(), i) != indices.end();
        format_->streams[i]->discard = wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
}

// Takes samples of the clock. It is not steady if it steps back anywhere, or makes one step that is far larger than the
// others.
bool Source::clockIsSteady() {
    std::vector<std::size_t> streams = usableStreams(*this, AVMEDIA_TYPE_VIDEO);
    if (streams.empty()) {
        streams = usableStreams(*this, AVMEDIA_TYPE_AUDIO);
    }
    if (streams.empty()) {
        return true;
    }
    const AVStream& from = stream(streams.front());
    const PacketPtr packet = newPacket();
    std::vector<std::int64_t> steps;
    std::optional<std::int64_t> last;
    for (int sample = 0; sample < kClockSamples; ++sample) {
        if (av_seek_frame(format_, -1, size_ / kClockSamples * sample, AVSEEK_FLAG_BYTE) < 0) {
            break;
        }
        std::int64_t time = AV_NOPTS_VALUE;
        for (int i = 0; i < kPacketsPerSample && time == AV_NOPTS_VALUE && readStored(*packet); ++i) {
            time = packet->stream_index == from.index ? packet->dts : AV_NOPTS_VALUE;
        }
        if (time == AV_NOPTS_VALUE) {
            continue;
        }
        time = av_rescale_q(time, from.time_base, kMicroseconds);
        if (last) {
            steps.push_back(time - *last);
        }
        last = time;
    }
    if (steps.empty()) {
        return true;
    }
    std::sort(steps.begin(), steps.end());
    const std::int64_t usual = steps[steps.size() / 2];
    return steps.front() >= 0 && steps.back() <= std::max(kLongestPause, kUnusualStep * usual);
}

void Source::measure() {
    if (!seekPoints_.empty() || size_ == 0) {
        return;
    }
    if (clockMayJump_) {
        const bool steady = clockIsSteady();
        (void)rewind();
        if (steady) {
            return;
        }
    } else if (!FrameOrder::isNeededFor(*format_) && !claimsTooMuch_) {
        return;
    }
    measureByReading();
    claimsTooMuch_ = false;
}

void Source::measureByReading() {
    const auto video = defaultOrFirst(*this, usableStreams(*this, AVMEDIA_TYPE_VIDEO));
    const PacketPtr packet = newPacket();
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    std::int64_t end = 0;
    while (read(*packet)) {
        const AVStream& from = stream(static_cast<std::size_t>(packet->stream_index));
        const AVMediaType kind = from.codecpar->codec_type;
        if (packet->pts == AV_NOPTS_VALUE || (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO)) {
            continue;
        }
        const std::int64_t time = av_rescale_q(packet->pts, from.time_base, kMicroseconds);
        first = std::min(first, time);
        end = std::max(end, time + av_rescale_q(packet->duration, from.time_base, kMicroseconds));
        const bool isMain = !video || static_cast<std::size_t>(packet->stream_index) == *video;
        const bool ascends = seekPoints_.empty() || time > seekPoints_.back().time;
        const auto state = repair_ ? repair_->stateAt(*packet) : std::nullopt;
        if (isMain && ascends && state && (packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pos >= 0) {
            seekPoints_.push_back({time, packet->pos, *state});
        }
    }
    duration_ = std::max<std::int64_t>(end - first, 0);
    (void)rewind();
    reached_ = end_ = bytesRead_ = bytesReached_ = 0;
    ended_ = false;
}

bool Source::seekToPoint(std::int64_t time) {
    const auto later = std::upper_bound(seekPoints_.begin(), seekPoints_.end(), time,
                                        [](std::int64_t t, const SeekPoint& point) { return t < point.time; });
    if (later == seekPoints_.begin()) {
        return rewind();
    }
    const SeekPoint& point = *(later - 1);
    forgetTimes();
    repair_->restart(point.state);
    const int result = av_seek_frame(format_, -1, point.position, AVSEEK_FLAG_BYTE);
    throwIfUnreadable();
    return result >= 0;
}

bool Source::seek(std::size_t index, std::int64_t time) {
    if (!seekPoints_.empty()) {
        return seekToPoint(time);
    }
    const std::int64_t there = av_rescale_q(time - shift_, kMicroseconds, stream(index).time_base);
    forgetTimes();
    const int result = av_seek_frame(format_, static_cast<int>(index), there, AVSEEK_FLAG_BACKWARD);
    throwIfUnreadable();
    return result >= 0;
}

// Times before and after a seek must not be compared.
void Source::forgetTimes() {
    ready_.clear();
    if (repair_) {
        repair_->restart(0);
    }
}

bool Source::rewind() {
    // In formats without an index a seek by time may miss the first packets, whose decoding time may lie before the
    // start of the movie.
    const int flags = format_->iformat->flags;
    const bool timed = (flags & AVFMT_TS_DISCONT) == 0 && format_->start_time != AV_NOPTS_VALUE;
    const bool guesses = !timed && (flags & AVFMT_NO_BYTE_SEEK) == 0;
    if (!guesses) {
        return seek(0, start_);
    }
    forgetTimes();
    const int result = av_seek_frame(format_, -1, 0, AVSEEK_FLAG_BYTE);
    throwIfUnreadable();
    return result >= 0;
}

void Source::readTimesOnly() noexcept {
    io_.readZeros();
    format_->flags |= AVFMT_FLAG_NOPARSE;
}

bool Source::read(AVPacket& packet) {
    if (!repair_) {
        if (!readStored(packet)) {
            return false;
        }
    } else {
        while (ready_.empty()) {
            PacketPtr stored = newPacket();
            if (readStored(*stored)) {
                repair_->push(std::move(stored), ready_);
                continue;
            }
            repair_->finish(ready_);
            if (ready_.empty()) {
                return false;
            }
        }
        av_packet_unref(&packet);
        av_packet_move_ref(&packet, ready_.front().get());
        ready_.pop_front();
    }
    moveToMovieTime(packet);
    return true;
}

bool Source::readStored(AVPacket& packet) {
    for (int failures = 0; failures < kReadAttempts;) {
        av_packet_unref(&packet);
        const int result = av_read_frame(format_, &packet);
        // A demuxer may return part of a packet, skip the bad bytes, or end as if the file ended there.
        throwIfUnreadable();
        if (result == AVERROR_EOF) {
            ended_ = true;
            return false;
        }
        if (result < 0) {
            ++failures;
            continue;
        }
        const auto index = static_cast<std::size_t>(packet.stream_index);
        if (index >= streamsInHeader_) {  // a stream that first appears after the headers
            continue;
        }
        const AVStream& from = stream(index);
        if (from.discard == AVDISCARD_ALL || isCover(from)) {
            continue;
        }
        if (isShownUntilTheNext(packet, from)) {
            packet.duration = 0;
        }
        bytesRead_ += packet.size;
        bytesReached_ = std::max(bytesReached_, packet.pos);
        cutOff_ |= (packet.flags & AV_PKT_FLAG_CORRUPT) != 0 && (format_->iformat->flags & AVFMT_TS_DISCONT) == 0 &&
                   avio_feof(format_->pb) != 0;
        return true;
    }
    return false;
}

void Source::moveToMovieTime(AVPacket& packet) {
    const AVRational unit = stream(static_cast<std::size_t>(packet.stream_index)).time_base;
    const std::int64_t shift = av_rescale_q(shift_, kMicroseconds, unit);
    if (packet.pts != AV_NOPTS_VALUE) {
        packet.pts += shift;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        packet.dts += shift;
        reached_ = std::max(reached_, av_rescale_q(packet.dts, unit, kMicroseconds));
        end_ = std::max(end_, av_rescale_q(packet.dts + packet.duration, unit, kMicroseconds));
    }
}

std::optional<double> Source::truncatedAt() const {
    if (!declaredSize_ && !cutOff_) {
        return std::nullopt;
    }
    std::int64_t time = end_;
    if (const auto missing = firstMissingTime(*format_, size_)) {
        time = *missing + shift_;
    } else if (!ended_ && declaredSize_) {
        time = start_ + av_rescale(wholeDuration_, size_, *declaredSize_);
    }
    time += part_ ? part_->start : 0;
    return static_cast<double>(std::max<std::int64_t>(time, 0)) / AV_TIME_BASE;
}

std::int64_t Source::lastPlausibleTime() const noexcept {
    if (part_) {
        return part_->length();
    }
    // The header of a spliced recording does not contain its whole length.
    const bool known = duration_ > 0 && !(format_->iformat->flags & AVFMT_TS_DISCONT);
    return known ? start_ + duration_ + kSlack : kLongestMovie;
}

}  // namespace krv::media
