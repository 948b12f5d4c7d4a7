#pragma once

#include <cstdint>
#include <memory>

#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// A movie being written into an open file descriptor. Streams are added, then the header is written, then
/// packets, then the file is finished. The muxer can read back what it has written (to move the index to the
/// front), and can open nothing else. One thread.
class OutputFile {
public:
    /// The descriptor must be open for reading and writing; it is emptied and not owned.
    /// Throws Failure with UnwritableDestination.
    OutputFile(int descriptor, const Container& container, Progress& progress);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    [[nodiscard]] AVFormatContext& format() const noexcept { return *format_; }
    [[nodiscard]] const Container& container() const noexcept { return container_; }
    /// Whether encoders have to put their headers into the stream's parameters.
    [[nodiscard]] bool wantsGlobalHeaders() const noexcept;

    /// A new stream, to be filled in before writeHeader(). Lives as long as this.
    [[nodiscard]] AVStream& addStream();

    /// Throws Failure with UnwritableDestination or ContainerRefusesTracks.
    void writeHeader();

    /// Takes the packet's data over and puts it in order among the other streams' packets. Its times are in
    /// units of timeBase. A packet whose content the container cannot take is left out.
    /// Throws Failure with UnwritableDestination or InternalError.
    void write(const AVStream& stream, AVPacket& packet, AVRational timeBase);

    /// Writes what is still waiting, and the index, in front where the container has one. Reports its
    /// progress as a phase that has been begun by the caller.
    void finish();

    /// How many packets of video and audio have been taken.
    [[nodiscard]] std::int64_t packetCount() const noexcept { return packets_; }

private:
    static int openForReading(AVFormatContext* format, AVIOContext** io, const char* url, int flags, AVDictionary**);
    static int closeAfterReading(AVFormatContext* format, AVIOContext* io);
    [[nodiscard]] bool hasCameraTags() const;
    void check(int result, FailureCause otherwise, const char* attempt) const;

    int descriptor_;
    const Container& container_;
    Progress& progress_;
    std::int64_t bytesMoved_ = 0;
    std::int64_t bytesToMove_ = 0;
    std::int64_t packets_ = 0;
    DescriptorIO io_;
    std::unique_ptr<DescriptorIO> reader_;
    AVFormatContext* format_ = nullptr;
};

}  // namespace krv::media
