#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Container/EditList.h>
#include <MediaServer/Media/Container/MovieIndex.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// Writes a movie into an open file descriptor. First streams are added, then the header is written, then packets, and
/// finally the file is finished. The muxer can read back what it has written, to move the index to the front, but it
/// cannot open any other file. Not thread-safe.
class OutputFile {
public:
    /// Truncates the file and borrows the descriptor, which must be open for reading and writing.
    /// Throws Failure with UnwritableDestination.
    OutputFile(int descriptor, const Container& container, Progress& progress);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    [[nodiscard]] AVFormatContext& format() const noexcept { return *format_; }
    [[nodiscard]] const Container& container() const noexcept { return container_; }
    /// Returns whether encoders have to put their headers into the stream's parameters.
    [[nodiscard]] bool wantsGlobalHeaders() const noexcept;

    /// Adds a stream, which the caller fills in before writeHeader(). This object owns it.
    [[nodiscard]] AVStream& addStream();

    /// Returns whether the tags that have been set are written as a list with keys; see QuickTimeTags.h.
    [[nodiscard]] bool writesKeyedTags() const;

    /// Stores a cover as a tag. Borrows the picture until finish() has returned. Only where writesKeyedTags(), or in a
    /// container with CoverArt::Tag.
    void setCover(const AVPacket& picture, bool isPNG);

    /// Leaves so much room for the index in front, if the container has one there; 0: the samples are moved back in the
    /// end. A size that is too small has the same effect. Call it before writeHeader().
    void expectIndex(std::int64_t size) noexcept { room_.size = container_.indexInFront ? size : 0; }

    /// Throws Failure with UnwritableDestination or ContainerRefusesTracks.
    void writeHeader();

    /// Makes write() keep the order of its calls instead of sorting the packets by time. For packets that come
    /// interleaved from another movie, and a container with an index of all packets.
    void keepOrder() noexcept { keepsOrder_ = true; }

    /// Sets what is called after each packet that is written.
    void onWrite(std::function<void()> written) { written_ = std::move(written); }

    /// Takes ownership of the packet's data and interleaves it with the packets of the other streams. Its times are in
    /// units of timeBase. The packet is empty afterwards. Drops a packet whose content the container rejects.
    /// Throws Failure with UnwritableDestination or InternalError.
    void write(const AVStream& stream, AVPacket& packet, AVRational timeBase);

    /// Makes a stream end at this time, in seconds of the movie, although later packets have been written because
    /// earlier frames refer to them. Only for containers with edits.
    void endAt(const AVStream& stream, double seconds);

    /// Writes the packets that are still buffered, and the index, which goes to the front if the container allows it.
    /// Reports progress in the phase that the caller has begun.
    void finish();

    /// Returns how many packets of video and audio have been written.
    [[nodiscard]] std::int64_t packetCount() const noexcept { return packets_; }

private:
    static int openForReading(AVFormatContext* format, AVIOContext** io, const char* url, int flags, AVDictionary**);
    static int closeAfterReading(AVFormatContext* format, AVIOContext* io);
    void addTagsOfTracks();
    /// Passes a packet to the muxer. Returns FFmpeg's error.
    [[nodiscard]] int pass(AVPacket& packet);
    void leaveRoomForIndex();
    void moveIndex();
    [[nodiscard]] bool appendCuePoints() const;
    void check(int result, FailureCause otherwise, const char* attempt) const;

    int descriptor_;
    const Container& container_;
    Progress& progress_;
    IndexRoom room_;
    std::int64_t bytesMoved_ = 0;
    std::int64_t bytesToMove_ = 0;
    std::int64_t packets_ = 0;
    std::vector<TrackEnd> ends_;
    const AVPacket* cover_ = nullptr;
    bool coverIsPNG_ = false;
    bool keepsOrder_ = false;
    std::function<void()> written_ = [] {};
    DescriptorIO io_;
    std::unique_ptr<DescriptorIO> reader_;
    AVFormatContext* format_ = nullptr;
};

}  // namespace krv::media
