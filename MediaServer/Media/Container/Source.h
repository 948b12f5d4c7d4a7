#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// An opened movie: its streams, and its packets one after another.
///
/// Whatever the descriptor holds is hostile until proven otherwise: formats that name other files (playlists,
/// image sequences, external references) are refused, and nothing but the descriptor is ever opened. One
/// thread.
class Source {
public:
    /// Reads the headers. The descriptor must be readable and seekable; it is not owned. Of the path only the
    /// extension is used, as a hint for formats that cannot be told by their content.
    /// Throws Failure: SourceIsFolder, SourceIsNotAFile, SourceIsEmpty, UnknownFormat, RefersToOtherFiles, Damaged,
    /// NeedsTooMuchMemory or NoTracks.
    Source(int descriptor, const std::string& path, Progress& progress);
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    [[nodiscard]] AVFormatContext& format() const noexcept { return *format_; }
    [[nodiscard]] AVStream& stream(std::size_t index) const noexcept { return *format_->streams[index]; }
    [[nodiscard]] std::size_t streamCount() const noexcept { return format_->nb_streams; }

    /// Length of the movie in microseconds; 0 when unknown.
    [[nodiscard]] std::int64_t duration() const noexcept { return duration_; }
    /// What has to be added to the file's times to get to the movie's own time, in microseconds. Formats
    /// whose clock starts anywhere (transport streams) are moved so that the movie starts at 0.
    [[nodiscard]] std::int64_t timeShift() const noexcept { return shift_; }
    /// Where the movie starts on its own time, in microseconds: later than 0 if it begins with an empty edit.
    [[nodiscard]] std::int64_t start() const noexcept { return start_; }

    /// The next packet, its times on the movie's own time in units of its stream; false at the end. Damage in
    /// the middle is skipped, and a file that breaks off ends there. Cover pictures are not among the
    /// packets.
    [[nodiscard]] bool read(AVPacket& packet);
    /// No frame of the movie is later than this, in microseconds, unless its time is damaged.
    [[nodiscard]] std::int64_t lastPlausibleTime() const noexcept;

    /// How far read() has come, in 0…1: by time, or by bytes when the length is unknown.
    [[nodiscard]] double position() const noexcept;

    /// The part of the file that the packets read so far make up, in 0…1: how far copying has come.
    [[nodiscard]] double bytePosition() const noexcept;

    /// Goes on reading with the stream's last key frame at or before a time, in microseconds of the movie's own time.
    /// False when the format cannot be sought in; the position is undefined then.
    [[nodiscard]] bool seek(std::size_t stream, std::int64_t time);

    /// Goes on reading with the very first packet. False when the format cannot be sought in.
    [[nodiscard]] bool rewind();

    /// From now on packets have their times, flags and sizes, but zeros for contents, and cost no reading. Only for
    /// formats whose header lists all packets.
    void readTimesOnly() noexcept;

    /// Only the streams with these indices are read from now on.
    void select(const std::vector<std::size_t>& indices);

private:
    void open(const std::string& path);
    void fixDiscontinuity(AVPacket& packet);

    std::int64_t size_ = 0;
    DescriptorIO io_;
    AVFormatContext* format_ = nullptr;
    std::int64_t duration_ = 0;
    std::int64_t shift_ = 0;
    std::int64_t start_ = 0;
    std::int64_t reached_ = 0;
    std::int64_t bytesRead_ = 0;
    std::int64_t discontinuity_ = 0;
    std::vector<std::optional<std::int64_t>> lastDts_;
};

}  // namespace krv::media
