#pragma once

#include <optional>

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>
#include <MediaServer/Media/Subtitles/SubtitleDecoder.h>
#include <MediaServer/Media/Subtitles/SubtitleWriter.h>

namespace krv::media {

/// Converts text subtitles to the format that the container supports.
class SubtitleConverter : public Track {
public:
    explicit SubtitleConverter(const AVStream& from);

    [[nodiscard]] bool ready() const override { return true; }
    void push(AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override {}

private:
    const AVStream& from_;
    SubtitleDecoder decoder_;
    std::optional<SubtitleWriter> writer_;
};

}  // namespace krv::media
