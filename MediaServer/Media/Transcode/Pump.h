#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Container/PartReader.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>
#include <MediaServer/Media/Foundation/Progress.h>
#include <MediaServer/Media/Transcode/StreamPlan.h>

namespace krv::media {

/// Moves the packets of one movie through tracks into the output, from the first packet to the finished file. Not
/// thread-safe.
class Pump {
public:
    Pump(Source& source, OutputFile& output, Progress& progress);

    /// Adds a track, which receives the packets of the streams with these indices. The order of the tracks is that of
    /// the output streams.
    void add(std::unique_ptr<Track> track, const std::vector<std::size_t>& indices);
    /// Adds the track for a plan other than Treatment::Encode.
    void addCopy(const StreamPlan& plan);

    /// Runs all tracks and finishes the file. encodes: whether a track encodes, which makes progress follow the time of
    /// the movie instead of its bytes. Progress is complete when this returns. Throws Failure.
    void run(bool encodes);

private:
    [[nodiscard]] std::int64_t expectedIndexSize() const;
    [[nodiscard]] std::deque<PacketPtr> prime();
    void convert(const std::deque<PacketPtr>& queued, bool encodes);
    void push(AVPacket& packet);
    void reportEncoded();

    Source& source_;
    OutputFile& output_;
    Progress& progress_;
    std::vector<std::unique_ptr<Track>> tracks_;
    std::vector<Track*> byIndex_;  // by index of the source's stream; null if the stream is not read
    std::vector<std::size_t> read_;
    bool copies_ = false;
    std::optional<PartReader> reader_;
};

}  // namespace krv::media
