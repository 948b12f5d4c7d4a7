#pragma once

#include <optional>

#include <MediaServer/Media/Merge/MergeTrack.h>
#include <MediaServer/Media/Subtitles/SubtitleDecoder.h>
#include <MediaServer/Media/Subtitles/SubtitleWriter.h>

namespace krv::media {

/// Joins the text subtitles of the sources, converted to the format that the container supports.
class MergeSubtitleTrack : public MergeTrack {
public:
    /// model: the stream whose styles, language and title the track gets. It must outlive the track.
    explicit MergeSubtitleTrack(const AVStream& model);

    void open(OutputFile& output) override { writer_.emplace(model_, SubtitleDecoder(model_), output); }
    void begin(const MergePart& part) override;
    void push(const AVPacket& packet) override;
    void hold(std::int64_t) override {}
    void end() override { decoder_.reset(); }
    void finish() override {}

private:
    void place(const Subtitle& lines);

    const AVStream& model_;
    std::optional<SubtitleWriter> writer_;
    std::optional<SubtitleDecoder> decoder_;
    MergePart part_{};
};

}  // namespace krv::media
