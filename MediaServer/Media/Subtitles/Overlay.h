#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <MediaServer/Media/Subtitles/FrameLayout.h>
#include <MediaServer/Media/Subtitles/OverlayImage.h>

namespace krv::media {

/// A picture with transparency in the form of the frames that it is laid over: turned as they are, in their colours and
/// their subsampling.
class Overlay {
public:
    /// Throws Failure with SettingDoesNotApply if pictures cannot be laid over frames in this pixel format.
    Overlay(const OverlayImage& image, const FrameLayout& layout);

    /// Draws the picture into a frame of the layout, whose data must be writable.
    void draw(AVFrame& frame) const;

    /// Throws the failure of the constructor.
    static void requireDrawable(AVPixelFormat pixels);

private:
    /// One component of the colour, in which a value is a part of the largest one.
    struct Plane {
        int component;
        Box box;                           // in units of the component
        std::vector<std::uint16_t> value;  // multiplied by the opacity
        std::vector<std::uint16_t> alpha;
    };
    [[nodiscard]] Plane makePlane(int component, const OverlayImage& image, const FrameLayout& layout) const;
    template <typename Sample>
    void draw(const Plane& plane, AVFrame& frame) const;

    const AVPixFmtDescriptor* format_;
    std::vector<Plane> planes_;
};

}  // namespace krv::media
