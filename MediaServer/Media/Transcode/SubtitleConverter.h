#pragma once

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>

namespace krv::media {

/// Converts text subtitles to the format that the container supports.
class SubtitleConverter : public Track {
public:
    explicit SubtitleConverter(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(const AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override {}

private:
    void write(AVSubtitle& subtitle);

    const AVStream& from_;
    OutputFile* output_ = nullptr;
    AVStream* to_ = nullptr;
    CodecContextPtr decoder_;
    CodecContextPtr encoder_;
    PacketPtr packet_ = newPacket();
};

}  // namespace krv::media
