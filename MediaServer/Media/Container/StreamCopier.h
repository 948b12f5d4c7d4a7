#pragma once

#include <cstdint>
#include <optional>

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>

namespace krv::media {

/// Copies a stream bit for bit, with everything that describes it.
class StreamCopier : public Track {
public:
    explicit StreamCopier(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(const AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override {}

private:
    void write(const AVPacket& packet);
    [[nodiscard]] std::int64_t guessDts(const AVPacket& packet) const;
    void makeTimesValid(AVPacket& packet);

    const AVStream& from_;
    OutputFile* output_ = nullptr;
    AVStream* to_ = nullptr;
    bool started_ = false;
    std::int64_t rounding_ = AV_NOPTS_VALUE;
    std::optional<std::int64_t> lastDts_;
    PacketPtr hidden_;  // the latest one that is not to be heard itself
    PacketPtr packet_ = newPacket();
};

/// Writes a source's cover picture where the container wants it: as a picture stream or as an attached file.
class CoverCopier : public Track {
public:
    explicit CoverCopier(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(const AVPacket&) override {}
    void open(OutputFile& output) override;
    void finish() override;

private:
    const AVStream& from_;
    OutputFile* output_ = nullptr;
    AVStream* to_ = nullptr;
};

}  // namespace krv::media
