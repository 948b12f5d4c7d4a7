#pragma once

#include <deque>
#include <memory>
#include <optional>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>
#include <MediaServer/Media/Subtitles/BurnIn.h>
#include <MediaServer/Media/Video/FrameTimer.h>
#include <MediaServer/Media/Video/GIFPalette.h>
#include <MediaServer/Media/Video/VideoFilter.h>

namespace krv::media {

/// Decodes a video stream and encodes it again.
class VideoTranscoder : public Track {
public:
    struct Request {
        const Codec& codec;
        float quality;
        float fps;  ///< 0: the source's own timing
        const Settings& settings;
        FramePtr palette{};      ///< for GIF, of GIFPalette
        BurnIn::Maker burnIn{};  ///< none: no subtitles are drawn
    };

    VideoTranscoder(const Source& source, const AVStream& from, Request request);

    [[nodiscard]] bool ready() const override { return !early_.empty(); }
    void push(AVPacket& packet) override;
    void open(OutputFile& output) override;
    [[nodiscard]] double done() const override { return encoder_ ? encoder_->done() : 1; }
    void finish() override;

private:
    void prepare(AVCodecContext& context, const VideoFormat& format, const AVFrame& first) const;
    [[nodiscard]] AVRational timeBase(AVCodecID codec) const;
    void receive(FramePtr frame);
    void accept(FramePtr frame);
    void countFrames();
    void showFromTheBeginning(const Container& container);
    void convert(FramePtr frame);
    void place(FramePtr frame);
    void repeatForChanges(std::int64_t end);
    void burnInto(FramePtr frame, std::int64_t time);
    void encode(FramePtr frame);

    const Source& source_;
    const AVStream& from_;
    const Request request_;
    bool constant_;    // whether the output has a constant frame rate
    AVRational rate_;  // of the output; if it is not constant, a hint
    Decoder decoder_;
    FramePtr before_;             // the latest frame before the beginning
    std::deque<FramePtr> early_;  // decoded before the output is opened
    VideoFormat format_;
    std::optional<VideoFilter> filter_;
    std::optional<PaletteMapper> mapper_;
    std::optional<FrameTimer> timer_;
    std::optional<EncoderSession> encoder_;
    std::unique_ptr<BurnIn> burnIn_;
    std::int64_t typical_ = 1;  // duration of a frame, in units of the stream
    FramePtr clean_;            // the latest frame without subtitles, if there are some to draw
};

}  // namespace krv::media
