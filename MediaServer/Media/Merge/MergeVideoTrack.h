#pragma once

#include <optional>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Merge/MergeTrack.h>
#include <MediaServer/Media/Video/FrameTimer.h>
#include <MediaServer/Media/Video/GIFPalette.h>
#include <MediaServer/Media/Video/VideoFilter.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {

/// Encodes the video of all sources: upright, in the size, shape, colours and rate of a model. Frames of another shape
/// are letterboxed. Sources without video are black.
class MergeVideoTrack : public MergeTrack {
public:
    struct Model {
        const AVStream& stream;  ///< must outlive the track
        FramePtr firstFrame;     ///< the first frame of the stream
        AVRational tick;         ///< duration of a frame, in seconds
        std::int64_t end;        ///< end of the merged movie, in microseconds
        int width = 0;           ///< in square pixels; 0: that of the first frame
        int height = 0;
        FramePtr palette{};  ///< for GIF, of PaletteChooser
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
    VideoFormat format_;  // of the model; the target format
    std::optional<EncoderSession> encoder_;
    std::optional<FrameTimer> timer_;
    std::optional<PaletteMapper> mapper_;
    std::optional<Decoder> decoder_;
    std::optional<VideoFilter> filter_;
    MergePart part_{};
    FramePtr latest_;  // latest frame of this part, in the target format
    bool fed_ = false;
};

}  // namespace krv::media
