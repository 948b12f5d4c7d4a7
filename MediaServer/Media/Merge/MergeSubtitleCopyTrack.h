#pragma once

#include <MediaServer/Media/Container/StreamCopier.h>
#include <MediaServer/Media/Merge/MergeTrack.h>

namespace krv::media {

/// Joins the subtitles of the sources without converting them. What is shown at the end of a source is shortened.
class MergeSubtitleCopyTrack : public MergeTrack {
public:
    /// model: the stream whose format is that of all sources. It must outlive the track.
    explicit MergeSubtitleCopyTrack(const AVStream& model);

    void open(OutputFile& output) override { copier_.open(output); }
    void begin(const MergePart& part) override { part_ = part; }
    void push(const AVPacket& packet) override;
    void hold(std::int64_t) override {}
    void end() override;
    void finish() override {}

private:
    const AVStream& model_;
    StreamCopier copier_;
    MergePart part_{};
    PacketPtr shown_;  // a packet that is shown until the next one
    int lines_ = 0;
};

}  // namespace krv::media
