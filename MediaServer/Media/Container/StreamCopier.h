#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>

namespace krv::media {

/// Copies a stream's packets unchanged, together with its metadata and side data.
class StreamCopier : public Track {
public:
    explicit StreamCopier(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override;

private:
    void pushHidden(AVPacket& packet);
    void pushShown(AVPacket& packet);
    void write(AVPacket& packet);
    [[nodiscard]] std::int64_t guessDts(const AVPacket& packet) const;
    void makeTimesValid(AVPacket& packet);

    const AVStream& from_;
    OutputFile* output_ = nullptr;
    AVStream* to_ = nullptr;
    bool started_ = false;
    std::int64_t rounding_ = AV_NOPTS_VALUE;
    std::optional<std::int64_t> lastDts_;
    PacketPtr hidden_;                        // the latest packet before the beginning that is decoded but not played
    std::optional<std::int64_t> shownUntil_;  // in units of the source; empty until a packet is played
    std::vector<PacketPtr> hiddenAfter_;      // packets since the latest one that is played
    bool hidesLater_ = false;                 // some of them have been written
};

/// Copies a source's cover picture into the form that the container uses: a video stream or an attached file.
class CoverCopier : public Track {
public:
    explicit CoverCopier(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(AVPacket&) override {}
    void open(OutputFile& output) override;
    void finish() override;

private:
    const AVStream& from_;
    OutputFile* output_ = nullptr;
    AVStream* to_ = nullptr;
};

}  // namespace krv::media
