#pragma once

#include <functional>
#include <string>

#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {

/// Turns decoded pictures into pictures of one format: fields into whole pictures, size, orientation,
/// colours. A source whose pictures change in the middle is followed: those of another shape than the first,
/// or than the target if it says so, are fitted with bars. One thread (the filters may use more of their own).
class VideoFilter {
public:
    using Sink = std::function<void(FramePtr)>;

    /// timeBase is the unit of the frames' times, in and out.
    VideoFilter(const VideoFormat& target, AVRational timeBase);

    void push(FramePtr frame, const Sink& sink);
    void finish(const Sink& sink);

private:
    void build(const AVFrame& frame);
    [[nodiscard]] std::string fittingChain(const AVFrame& frame, int width, int height) const;
    [[nodiscard]] std::string chainFor(const AVFrame& frame) const;
    void drain(const Sink& sink);
    [[nodiscard]] bool sameKind(const AVFrame& frame) const;

    const VideoFormat target_;
    const AVRational timeBase_;
    bool deinterlaces_ = false;
    double shape_ = 0;  // width to height of the first picture
    FramePtr like_;     // properties of the pictures that the graph was built for, without their data
    FilterGraphPtr graph_;
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
};

}  // namespace krv::media
