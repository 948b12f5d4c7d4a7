#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Media/Container/Boxes.h>
#include <MediaServer/Media/Container/CuePoints.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/QuickTimeTags.h>

namespace krv::media {

OutputFile::OutputFile(int descriptor, const Container& container, Progress& progress)
    : descriptor_(descriptor)
    , container_(container)
    , progress_(progress)
    , io_(descriptor, DescriptorIO::Mode::Write, [this](std::int64_t) { progress_.alive(); }) {
    if (ftruncate(descriptor, 0) != 0) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
    }
    const int result = avformat_alloc_output_context2(&format_, nullptr, container.muxer, nullptr);
    if (result < 0) {
        fail(FailureCause::UnsupportedContainer, result, "finding the muxer", std::string(container.extension));
    }
    format_->pb = io_.context();
    format_->flags |= AVFMT_FLAG_CUSTOM_IO;
    format_->opaque = this;
    format_->io_open = &openForReading;
    format_->io_close2 = &closeAfterReading;
}

OutputFile::~OutputFile() {
    avformat_free_context(format_);
}

bool OutputFile::wantsGlobalHeaders() const noexcept {
    return (format_->oformat->flags & AVFMT_GLOBALHEADER) != 0;
}

AVStream& OutputFile::addStream() {
    return *notNull(avformat_new_stream(format_, nullptr));
}

bool OutputFile::writesKeyedTags() const {
    return needsKeyedTags(container_, format_->metadata);
}

void OutputFile::setCover(const AVPacket& picture, bool isPNG) {
    cover_ = &picture;
    coverIsPNG_ = isPNG;
    reserveCover(&format_->metadata, picture);
}

// Formats with a single track store its language, if at all, among the tags of the file. FLAC stores chapters there,
// too, but FFmpeg's muxer does not do it.
void OutputFile::addTagsOfTracks() {
    if (!container_.singleTrack) {
        return;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        const AVStream& stream = *format_->streams[i];
        const AVDictionaryEntry* const language = av_dict_get(stream.metadata, "language", nullptr, 0);
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO && language && std::strcmp(language->value, "und") != 0) {
            av_dict_set(&format_->metadata, "language", language->value, AV_DICT_DONT_OVERWRITE);
        }
    }
    if (container_.extension == "flac") {
        for (unsigned i = 0; i < format_->nb_chapters; ++i) {
            const AVChapter& chapter = *format_->chapters[i];
            const std::int64_t start = av_rescale_q(chapter.start, chapter.time_base, AVRational{1, 1000});
            const std::string key = fmt::format("CHAPTER{:03}", i);
            const std::string time = fmt::format("{:02}:{:02}:{:02}.{:03}", start / 3'600'000, start / 60'000 % 60,
                                                 start / 1000 % 60, start % 1000);
            const AVDictionaryEntry* const title = av_dict_get(chapter.metadata, "title", nullptr, 0);
            av_dict_set(&format_->metadata, key.c_str(), time.c_str(), 0);
            av_dict_set(&format_->metadata, (key + "NAME").c_str(), title ? title->value : "", 0);
        }
    }
}

void OutputFile::writeHeader() {
    AVDict options;
    av_dict_parse_string(options.address(), container_.options, "=", ":", 0);
    if (container_.indexInFront && room_.size == 0) {
        av_dict_set(options.address(), "movflags", "+faststart", AV_DICT_APPEND);
    }
    addTagsOfTracks();
    if (writesKeyedTags()) {
        av_dict_set(options.address(), "movflags", "+use_metadata_tags", AV_DICT_APPEND);
    }
    if (container_.extension == "mp4" || container_.extension == "m4v") {
        // FFmpeg calls FLAC in MPEG-4 experimental. It has been specified since 2016, and players support it.
        format_->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
    }
    check(avformat_write_header(format_, options.address()), FailureCause::ContainerRefusesTracks,
          "writing the header");
    if (room_.size > 0) {
        leaveRoomForIndex();
    }
    if (!container_.indexInFront || room_.size > 0) {
        io_.flushEarly();
    }
}

// The room begins behind the first box, which says what kind of file it is.
void OutputFile::leaveRoomForIndex() {
    avio_flush(io_.context());
    check(0, FailureCause::InternalError, "writing the header");
    const std::int64_t end = avio_tell(io_.context());
    std::vector<std::byte> header(static_cast<std::size_t>(end));
    Bytes rest = header;
    if (!readAtDescriptor(descriptor_)(0, header) || !takeBox(rest)) {
        throw Failure({.cause = FailureCause::InternalError, .reason = "the header cannot be read back"});
    }
    room_.at = end - static_cast<std::int64_t>(rest.size());
    io_.leaveRoom(room_.at, room_.size);
    // The rest of the header has been written where the room is now. Write it again, behind the room.
    avio_seek(io_.context(), room_.at, SEEK_SET);
    avio_write(io_.context(), reinterpret_cast<const unsigned char*>(rest.data()), static_cast<int>(rest.size()));
}

void OutputFile::moveIndex() {
    const int error = moveIndexToFront(descriptor_, room_, [this](std::int64_t bytes) {
        bytesMoved_ += bytes;
        progress_.reach(static_cast<double>(bytesMoved_) /
                        static_cast<double>(std::max<std::int64_t>(bytesToMove_, 1)));
    });
    if (error != 0) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = error});
    }
}

void OutputFile::write(const AVStream& stream, AVPacket& packet, AVRational timeBase) {
    const AVMediaType kind = stream.codecpar->codec_type;
    // Encoders of audio begin with a packet that only prepares the decoder. Where packets have no times, it would delay
    // all others.
    if (container_.times == Times::Counted && kind == AVMEDIA_TYPE_AUDIO && packet.pts + packet.duration / 2 < 0) {
        return;
    }
    packet.stream_index = stream.index;
    packet.pos = -1;
    av_packet_rescale_ts(&packet, timeBase, stream.time_base);
    // A damaged header can make a frame last for days, which no container can store. Use the longest duration that it
    // can store.
    packet.duration = std::clamp<std::int64_t>(packet.duration, 0, std::numeric_limits<int>::max());
    const int result = pass(packet);
    av_packet_unref(&packet);
    if (result == AVERROR_INVALIDDATA && io_.errorNumber() == 0) {
        return;
    }
    check(result, FailureCause::InternalError, "writing a packet");
    if (kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO) {
        ++packets_;
    }
    written_();
}

int OutputFile::pass(AVPacket& packet) {
    if (!keepsOrder_) {
        return av_interleaved_write_frame(format_, &packet);
    }
    // Of data that is not counted, FFmpeg does not allocate another reference. It lives until this returns.
    AVBufferRef* const data = std::exchange(packet.buf, nullptr);
    const int result = av_write_frame(format_, &packet);
    packet.buf = data;
    return result;
}

void OutputFile::endAt(const AVStream& stream, double seconds) {
    ends_.push_back({static_cast<std::uint32_t>(stream.index) + 1, seconds});  // the muxer's number of the track
}

void OutputFile::finish() {
    bytesToMove_ = avio_tell(io_.context());
    check(av_write_trailer(format_), FailureCause::InternalError, "finishing the file");
    avio_flush(io_.context());
    check(0, FailureCause::InternalError, "finishing the file");
    if (const int error = io_.context()->error; error < 0) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = AVUNERROR(error)});
    }
    if (room_.size > 0) {
        moveIndex();
    }
    if (container_.extension == "wav" && !appendCuePoints()) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
    }
    if (cover_ && !fillCover(descriptor_, *cover_, coverIsPNG_)) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
    }
    if (!ends_.empty() && !shortenTracks(descriptor_, ends_)) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = errno});
    }
}

bool OutputFile::appendCuePoints() const {
    if (format_->nb_chapters == 0 || format_->nb_streams == 0) {
        return true;
    }
    const std::string chunks =
        cueChunks({format_->chapters, format_->nb_chapters}, format_->streams[0]->codecpar->sample_rate);
    return chunks.empty() || appendChunks(descriptor_, chunks);
}

void OutputFile::check(int result, FailureCause otherwise, const char* attempt) const {
    // Muxers report failed writes incompletely and inexactly; the errno of the transfer is exact.
    if (io_.errorNumber() != 0) {
        throw Failure({.cause = FailureCause::UnwritableDestination, .errorNumber = io_.errorNumber()});
    }
    if (result < 0) {
        fail(otherwise, result, attempt, std::string(container_.extension));
    }
}

// To make room for the index, the muxer moves the media data back. For that it opens its own output a second time,
// under the context's (empty) URL.
int OutputFile::openForReading(AVFormatContext* format, AVIOContext** io, const char* url, int flags, AVDictionary**) {
    auto& self = *static_cast<OutputFile*>(format->opaque);
    if ((url && *url) || flags != AVIO_FLAG_READ || self.reader_) {
        return AVERROR(EPERM);
    }
    try {
        self.reader_ =
            std::make_unique<DescriptorIO>(self.descriptor_, DescriptorIO::Mode::Read, [&self](std::int64_t bytes) {
                self.bytesMoved_ += bytes;
                if (self.bytesToMove_ > 0) {
                    self.progress_.reach(static_cast<double>(self.bytesMoved_) /
                                         static_cast<double>(self.bytesToMove_));
                }
            });
    } catch (const std::bad_alloc&) {
        return AVERROR(ENOMEM);
    }
    *io = self.reader_->context();
    return 0;
}

int OutputFile::closeAfterReading(AVFormatContext* format, AVIOContext* io) {
    auto& self = *static_cast<OutputFile*>(format->opaque);
    if (self.reader_ && io == self.reader_->context()) {
        self.reader_.reset();
    }
    return 0;
}

}  // namespace krv::media
