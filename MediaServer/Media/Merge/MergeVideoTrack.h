#pragma once

#include <optional>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Merge/MergeTrack.h>
#include <MediaServer/Media/Video/FrameTimer.h>
#include <MediaServer/Media/Video/VideoFilter.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {

/// Pictures that are encoded anew: upright, in the size, shape, colours and rate of a model, the others fitted
/// into that with bars; black where a source has none.
class MergeVideoTrack : public MergeTrack {
public:
    struct Model {
        const AVStream& stream;  ///< lives as long as the track
        FramePtr firstFrame;     ///< its first
        AVRational tick;         ///< how long each is shown, in seconds
        std::int64_t end;        ///< of the merged movie, in microseconds
    };
    MergeVideoTrack(Model model, const Codec& codec);

    void open(OutputFile& output) override;
    void begin(const MergePart& part) override;
    void push(const AVPacket& packet) override;
    void hold(std::int64_t time) override;
    void end() override;
    void finish() override;

private:
    void convert(FramePtr frame);
    void place(FramePtr frame);
    void show(const AVFrame& frame, std::int64_t time);
    void drain();
    void encode(FramePtr frame);
    [[nodiscard]] FramePtr black() const;

    const Model model_;
    const Codec& codec_;
    const Settings settings_;
    VideoFormat format_;  // of the model, which is the target
    std::optional<EncoderSession> encoder_;
    std::optional<FrameTimer> timer_;
    std::optional<Decoder> decoder_;
    std::optional<VideoFilter> filter_;
    MergePart part_{};
    FramePtr latest_;  // of this part, in the target's format
    bool fed_ = false;
};

}  // namespace krv::media
