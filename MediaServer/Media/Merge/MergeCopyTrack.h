#pragma once

#include <MediaServer/Media/Container/StreamCopier.h>
#include <MediaServer/Media/Merge/MergeTrack.h>

namespace krv::media {

/// Joins the packets of the sources without encoding them.
class MergeCopyTrack : public MergeTrack {
public:
    /// model: the stream whose format is that of all sources. It must outlive the track.
    explicit MergeCopyTrack(const AVStream& model);

    void open(OutputFile& output) override { copier_.open(output); }
    void begin(const MergePart& part) override { part_ = part; }
    void push(const AVPacket& packet) override;
    void hold(std::int64_t) override {}
    void end() override {}
    void finish() override;

private:
    void pushVideo(PacketPtr packet);
    void pushAudio(PacketPtr packet);
    [[nodiscard]] std::int64_t samplesOf(const AVPacket& packet) const;

    const AVStream& model_;
    StreamCopier copier_;
    MergePart part_{};
    PacketPtr waiting_;            // the latest video packet; if it is the last one, it lasts to the end
    std::int64_t shownUntil_ = 0;  // in the model's time base
    bool heard_ = false;
    std::int64_t samples_ = 0;  // where the next audio packet would follow without a pause
};

}  // namespace krv::media
