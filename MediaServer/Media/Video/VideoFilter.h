#pragma once

#include <functional>
#include <string>

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {

/// Converts decoded frames to one format: deinterlaces, scales, rotates, and converts colours. The format of the source
/// may change in the middle. Frames whose shape differs from that of the first frame are letterboxed. If
/// VideoFormat::fitted is set, those whose shape differs from that of the target are. Not thread-safe; the filters may
/// use threads of their own.
class VideoFilter {
public:
    using Sink = std::function<void(FramePtr)>;

    /// timeBase: unit of the times of input and output frames. threads: of a single frame, starting them takes longer
    /// than the work.
    VideoFilter(const VideoFormat& target, AVRational timeBase, int threads = coreCount());

    void push(FramePtr frame, const Sink& sink);
    void finish(const Sink& sink);

private:
    void build(const AVFrame& frame);
    [[nodiscard]] std::string fittingChain(const AVFrame& frame, int width, int height) const;
    [[nodiscard]] std::string chainFor(const AVFrame& frame) const;
    void drain(const Sink& sink);
    [[nodiscard]] bool sameFormat(const AVFrame& frame) const;

    const VideoFormat target_;
    const AVRational timeBase_;
    const int threads_;
    bool deinterlaces_ = false;
    double shape_ = 0;   // width to height of the first frame
    FramePtr builtFor_;  // properties of the frames that the graph was built for, without data
    FilterGraphPtr graph_;
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
};

}  // namespace krv::media
