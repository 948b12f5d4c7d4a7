#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/DescriptorIO.h>
#include <MediaServer/Media/Container/TimeRepair.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// A part of a movie, in microseconds of its own time.
struct Part {
    /// Later than any movie ends: a thousand hours.
    static constexpr std::int64_t kEnd = std::int64_t{1000} * 3600 * AV_TIME_BASE;

    std::int64_t start = 0;
    std::int64_t end = kEnd;

    [[nodiscard]] std::int64_t length() const noexcept { return end - start; }
};

/// Reads a movie: its streams, and its packets one after another.
///
/// The file is treated as hostile. Formats that name other files (playlists, image sequences, external references) are
/// refused, and nothing but the descriptor is ever read. Not thread-safe.
class Source {
public:
    /// Reads the headers. Borrows the descriptor, which must be readable and seekable. Uses only the path's extension,
    /// as a hint for formats that cannot be recognised by their content.
    /// Throws Failure: SourceIsFolder, SourceIsNotAFile, SourceIsEmpty, UnknownFormat, UnsupportedFormat,
    /// RefersToOtherFiles, Damaged, NeedsTooMuchMemory or NoTracks. Every function that reads throws UnreadableSource
    /// after a read error.
    Source(int descriptor, const std::string& path, Progress& progress);
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    [[nodiscard]] AVFormatContext& format() const noexcept { return *format_; }
    [[nodiscard]] AVStream& stream(std::size_t index) const noexcept { return *format_->streams[index]; }
    [[nodiscard]] std::size_t streamCount() const noexcept { return format_->nb_streams; }

    /// Finds out how long a recording is if its headers do not say, or claim what cannot be. A file without timestamps
    /// is read to its end. So is one whose clock jumps: there the difference of the first and last time says nothing.
    /// After that, duration() is what is played, and seek() works everywhere. Must be called before read().
    void measure();

    /// Makes a part of the movie the whole: its own time is then 0 where the part starts, its length is that of the
    /// part, and time codes are those of the part. Reading still starts at the beginning; see PartReader. Call it
    /// before reading. Throws Failure with UnsupportedSetting if the part starts after the end.
    void restrictTo(const Part& part);
    [[nodiscard]] const std::optional<Part>& part() const noexcept { return part_; }

    /// Returns the length of the movie in microseconds, or 0 if it is unknown.
    [[nodiscard]] std::int64_t duration() const noexcept { return duration_; }
    /// Returns the difference between the movie's own time and the file's timestamps, in microseconds. It is added to
    /// the timestamps. Formats whose clock starts anywhere (transport streams) are shifted so that the movie starts at
    /// 0.
    [[nodiscard]] std::int64_t timeShift() const noexcept { return shift_; }
    /// Returns where the movie starts on its own time, in microseconds: later than 0 if it begins with an empty edit.
    [[nodiscard]] std::int64_t start() const noexcept { return start_; }

    /// Reads the next packet and shifts its times to the movie's own time, in units of its stream. Returns false at the
    /// end, also at the end of a truncated file. Skips damaged parts and cover pictures.
    [[nodiscard]] bool read(AVPacket& packet);
    /// Returns a time in microseconds after which only frames with damaged timestamps can lie.
    [[nodiscard]] std::int64_t lastPlausibleTime() const noexcept;

    /// Returns where the movie ends because its file was cut off, in seconds of the movie's own time. Empty if the file
    /// is whole, as far as can be told. Exact if the format has an index in front, or after read() has returned false;
    /// otherwise an estimate by the bytes that are missing.
    [[nodiscard]] std::optional<double> truncatedAt() const;

    /// Returns how far read() has come, in 0…1: by time, or by bytes if the length is unknown or a guess.
    [[nodiscard]] double position() const noexcept;

    /// Returns the size of the index of these streams in the file, or 0 if the file has no such thing or is not whole.
    [[nodiscard]] std::int64_t indexSizeOf(const std::vector<std::size_t>& indices) const;
    /// Returns the size of the file in bytes.
    [[nodiscard]] std::int64_t fileSize() const noexcept { return size_; }

    /// Returns which part of the file the packets so far make up, in 0…1: how far copying has come.
    [[nodiscard]] double bytePosition() const noexcept;

    /// Seeks to the stream's last key frame at or before a time, in microseconds of the movie's own time. Returns false
    /// if the format is not seekable; the position is undefined then.
    [[nodiscard]] bool seek(std::size_t stream, std::int64_t time);

    /// Seeks to the first packet of the file. Returns false if the format is not seekable.
    [[nodiscard]] bool rewind();

    /// Makes all further packets contain zeros, with their times, flags and sizes intact, so that no media data is
    /// read. Only for formats whose header lists all packets.
    void readTimesOnly() noexcept;

    /// Restricts further reading to the streams with these indices.
    void select(const std::vector<std::size_t>& indices);

private:
    void open(int descriptor, const std::string& path);
    void adoptTagsOfOgg();
    void adoptLanguage();
    void shiftTimeCodes();
    /// Throws Failure UnreadableSource if any transfer has failed so far.
    void throwIfUnreadable() const;
    /// Reads the next packet with the times of the file.
    [[nodiscard]] bool readStored(AVPacket& packet);
    [[nodiscard]] bool clockIsSteady();
    void measureByReading();
    void moveToMovieTime(AVPacket& packet);
    void forgetTimes();

    int descriptor_;
    std::int64_t size_ = 0;
    DescriptorIO io_;
    AVFormatContext* format_ = nullptr;
    std::optional<Part> part_;
    std::int64_t wholeDuration_ = 0;
    std::int64_t duration_ = 0;
    std::int64_t shift_ = 0;
    std::size_t streamsInHeader_ = 0;
    std::int64_t start_ = 0;
    std::int64_t reached_ = 0;
    std::int64_t end_ = 0;
    std::int64_t bytesRead_ = 0;
    std::int64_t bytesReached_ = 0;  // where the latest packet is in the file
    /// The size that the file should have, if it has less.
    std::optional<std::int64_t> declaredSize_;
    /// Whether read() has met the end, and whether a packet was cut off there.
    bool ended_ = false;
    bool cutOff_ = false;
    /// A key frame of a measured recording.
    struct SeekPoint {
        std::int64_t time;      // when it is shown, on the movie's own time, in microseconds
        std::int64_t position;  // in the file
        std::int64_t state;     // of repair_
    };
    [[nodiscard]] bool seekToPoint(std::int64_t time);

    std::unique_ptr<TimeRepair> repair_;  // null if the times of the file are right
    bool clockMayJump_ = false;
    bool claimsTooMuch_ = false;         // the length in the header cannot be right, and is not known
    std::vector<SeekPoint> seekPoints_;  // ascending; empty unless measured
    std::deque<PacketPtr> ready_;        // what it has returned
};

}  // namespace krv::media
