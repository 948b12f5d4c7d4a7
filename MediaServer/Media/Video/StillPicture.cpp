#include <algorithm>
#include <cmath>
#include <utility>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Video/StillPicture.h>
#include <MediaServer/Media/Video/VideoFilter.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {
namespace {

/// Its small errors are invisible, and the file is a third as large as at the best quality.
constexpr int kQuantiser = 3;

constexpr int kLongestSide = 16384;

/// JPEG as a container: it cannot store a rotation or anything else that containers of movies can.
constexpr Container kStill{"jpg", "",    0,     0,     AV_CODEC_ID_NONE, CoverArt::None,
                           false, false, false, false, Times::Stored,    ""};

VideoFormat formatOf(const AVStream& stream, const AVFrame& frame, Extent extent) {
    const Settings settings;
    VideoFormat format =
        chooseVideoFormat({stream, frame, codecForFourCC(fourCC("jpeg"), AVMEDIA_TYPE_VIDEO), settings, kStill});
    format.width = extent.width;
    format.height = extent.height;
    format.sampleAspect = {1, 1};
    format.interlaced = false;
    // JPEG readers assume this matrix and range.
    format.space = AVCOL_SPC_SMPTE170M;
    format.range = AVCOL_RANGE_JPEG;
    format.convertsColours = true;
    return format;
}

FramePtr converted(const AVStream& stream, FramePtr frame, const VideoFormat& format) {
    frame->pts = 0;
    VideoFilter filter(format, stream.time_base, 1);
    FramePtr result;
    const auto keepFirst = [&result](FramePtr ready) {
        if (!result) {
            result = std::move(ready);
        }
    };
    filter.push(std::move(frame), keepFirst);
    filter.finish(keepFirst);
    if (!result) {
        throw Failure({.cause = FailureCause::InternalError, .reason = "the filter returned no frame"});
    }
    return result;
}

}  // namespace

Extent displayExtent(const AVStream& stream, int codedWidth, int codedHeight) {
    AVRational aspect = stream.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) {
        aspect = stream.codecpar->sample_aspect_ratio;
    }
    const double stretch = aspect.num > 0 && aspect.den > 0 ? av_q2d(aspect) : 1;
    const auto side = [](double length) {
        return static_cast<int>(std::clamp(std::round(length), 1.0, static_cast<double>(kLongestSide)));
    };
    Extent extent{side(codedWidth * stretch), side(codedHeight)};
    if (displayedSideways(stream)) {
        std::swap(extent.width, extent.height);
    }
    return extent;
}

Extent fittedInto(Extent picture, double boxWidth, double boxHeight) noexcept {
    double scale = 1;
    if (boxWidth > 0) {
        scale = std::min(scale, boxWidth / picture.width);
    }
    if (boxHeight > 0) {
        scale = std::min(scale, boxHeight / picture.height);
    }
    const auto side = [scale](int length) { return std::max(1, static_cast<int>(std::lround(length * scale))); };
    return {side(picture.width), side(picture.height)};
}

std::vector<std::uint8_t> encodeJPEG(const AVStream& stream, FramePtr frame, double boxWidth, double boxHeight) {
    const Extent extent = fittedInto(displayExtent(stream, frame->width, frame->height), boxWidth, boxHeight);
    const VideoFormat format = formatOf(stream, *frame, extent);
    const FramePtr picture = converted(stream, std::move(frame), format);

    const CodecContextPtr encoder(notNull(avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG))));
    encoder->width = picture->width;
    encoder->height = picture->height;
    encoder->pix_fmt = static_cast<AVPixelFormat>(picture->format);
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->time_base = {1, 1};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = kQuantiser * FF_QP2LAMBDA;
    encoder->thread_count = 1;
    int result = avcodec_open2(encoder.get(), encoder->codec, nullptr);
    picture->quality = encoder->global_quality;
    picture->pict_type = AV_PICTURE_TYPE_I;
    const PacketPtr packet = newPacket();
    if (result >= 0) {
        result = avcodec_send_frame(encoder.get(), picture.get());
    }
    if (result >= 0) {
        result = avcodec_send_frame(encoder.get(), nullptr);
    }
    if (result >= 0) {
        result = avcodec_receive_packet(encoder.get(), packet.get());
    }
    if (result < 0) {
        fail(FailureCause::InternalError, result, "encoding a JPEG");
    }
    return {packet->data, packet->data + packet->size};
}

}  // namespace krv::media
